#include "ctl/restore/State.h"

#include "common/Account.h"
#include "common/Json.h"

#include <QJsonArray>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qsizetype kLongestWord = 1024;

constexpr std::pair<KeptSetting::Scope, QLatin1StringView> kScopes[] = {
    {KeptSetting::Scope::Database, "database"_L1},
    {KeptSetting::Scope::Role, "role"_L1},
    {KeptSetting::Scope::RoleInDatabase, "role in database"_L1},
};

bool matches(const QString &pattern, const QString &text)
{
    return QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(text).hasMatch();
}

QString nameOf(KeptSetting::Scope scope)
{
    for (const auto &[of, name] : kScopes) {
        if (of == scope)
            return name;
    }
    return {};
}

// Takes members out of an object, and remembers whether all were as they are written.
class Members
{
public:
    explicit Members(const QJsonObject &object) : m_object(object) {}

    QString text(QLatin1StringView name, qsizetype longest = kLongestWord)
    {
        const QJsonValue value = m_object.value(name);
        const QString text = value.toString();
        m_isWell = m_isWell && (value.isString() || value.isUndefined()) && text.size() <= longest &&
                   !text.contains(QChar::Null);
        return text;
    }

    qint64 number(QLatin1StringView name)
    {
        const QJsonValue value = m_object.value(name);
        const qint64 number = value.toInteger(-1);
        m_isWell = m_isWell && (value.isUndefined() || number >= 0);
        return std::max<qint64>(number, 0);
    }

    bool flag(QLatin1StringView name)
    {
        const QJsonValue value = m_object.value(name);
        m_isWell = m_isWell && (value.isBool() || value.isUndefined());
        return value.toBool();
    }

    QByteArray bytes(QLatin1StringView name, qint64 most)
    {
        const QJsonValue value = m_object.value(name);
        const auto decoded =
            QByteArray::fromBase64Encoding(value.toString().toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
        m_isWell = m_isWell && (value.isString() || value.isUndefined()) && decoded && decoded.decoded.size() <= most;
        return decoded.decoded;
    }

    QList<QJsonObject> objects(QLatin1StringView name, qsizetype most)
    {
        const QJsonValue value = m_object.value(name);
        const QJsonArray array = value.toArray();
        m_isWell = m_isWell && (value.isArray() || value.isUndefined()) && array.size() <= most;
        QList<QJsonObject> all;
        for (const auto &entry : array) {
            m_isWell = m_isWell && entry.isObject();
            all.append(entry.toObject());
        }
        return all;
    }

    [[nodiscard]] bool has(QLatin1StringView name) const
    {
        return m_object.contains(name);
    }
    void require(bool isSo)
    {
        m_isWell = m_isWell && isSo;
    }
    [[nodiscard]] bool isWell() const
    {
        return m_isWell;
    }

private:
    QJsonObject m_object;
    bool m_isWell = true;
};

std::optional<KeptSetting> parseSetting(const QJsonObject &object)
{
    Members members(object);
    KeptSetting setting;
    const QString scope = members.text("scope"_L1);
    setting.name = members.text("name"_L1);
    setting.value = members.text("value"_L1, kLongestSetting);
    for (const auto &[of, name] : kScopes) {
        if (scope == name)
            setting.scope = of;
    }
    members.require(scope == nameOf(setting.scope));
    // Also those of the form NAME.NAME, which anybody may make up.
    members.require(matches(u"[A-Za-z_][A-Za-z0-9_$]{0,62}(\\.[A-Za-z_][A-Za-z0-9_$]{0,62})?"_s, setting.name));
    return members.isWell() ? std::optional(setting) : std::nullopt;
}

std::optional<KeptJob> parseKeptJob(const QJsonObject &object)
{
    Members members(object);
    KeptJob job;
    job.time = members.number("time"_L1);
    const QString queue = members.text("queue"_L1);
    members.require(matches(u"[A-Za-z]"_s, queue));
    job.queue = queue.isEmpty() ? 'a' : queue[0].toLatin1();
    job.script = members.bytes("script"_L1, kLargestJobs);
    return members.isWell() ? std::optional(job) : std::nullopt;
}

std::optional<KeptDatabase> parseDatabase(const QJsonObject &object)
{
    Members members(object);
    const KeptDatabase database = {members.text("encoding"_L1), members.text("collate"_L1), members.text("ctype"_L1)};
    return members.isWell() ? std::optional(database) : std::nullopt;
}

} // namespace

QByteArray stateLine(const AccountState &state)
{
    QJsonObject line = {{u"username"_s, state.username},
                        {u"domain"_s, state.domain},
                        {u"taken"_s, state.taken},
                        {u"uid"_s, state.uid},
                        {u"shell"_s, state.shell},
                        {u"suspended"_s, state.isSuspended},
                        {u"linger"_s, state.lingers},
                        {u"shadow"_s, state.shadow},
                        {u"crontab"_s, QString::fromLatin1(state.crontab.toBase64())},
                        {u"php"_s, state.php.join(u' ')}};
    if (!state.leftOut.isEmpty())
        line.insert(u"leftOut"_s, state.leftOut.join(u','));
    if (state.role)
        line.insert(u"role"_s, *state.role);
    if (state.limitMb)
        line.insert(u"limitMb"_s, *state.limitMb);
    if (state.database)
        line.insert(u"database"_s, QJsonObject{{u"encoding"_s, state.database->encoding},
                                               {u"collate"_s, state.database->collate},
                                               {u"ctype"_s, state.database->ctype}});
    QJsonArray settings;
    for (const KeptSetting &setting : state.settings)
        settings.append(
            QJsonObject{{u"scope"_s, nameOf(setting.scope)}, {u"name"_s, setting.name}, {u"value"_s, setting.value}});
    line.insert(u"settings"_s, settings);
    QJsonArray jobs;
    for (const KeptJob &job : state.jobs)
        jobs.append(QJsonObject{{u"time"_s, job.time},
                                {u"queue"_s, QString(QLatin1Char(job.queue))},
                                {u"script"_s, QString::fromLatin1(job.script.toBase64())}});
    line.insert(u"jobs"_s, jobs);
    return compactJson(line) + '\n';
}

std::optional<AccountState> parseStateLine(const QByteArray &line)
{
    const QJsonObject object = parseObject(line);
    Members members(object);
    AccountState state;
    state.username = members.text("username"_L1);
    members.require(hosting::validUsername(state.username));
    state.domain = members.text("domain"_L1);
    state.taken = members.number("taken"_L1);
    state.uid = members.number("uid"_L1);
    state.shell = members.text("shell"_L1);
    state.isSuspended = members.flag("suspended"_L1);
    state.lingers = members.flag("linger"_L1);
    state.shadow = members.text("shadow"_L1);
    state.crontab = members.bytes("crontab"_L1, kLargestCrontab);
    state.php = members.text("php"_L1).split(u' ', Qt::SkipEmptyParts);
    state.leftOut = members.text("leftOut"_L1).split(u',', Qt::SkipEmptyParts);
    if (members.has("role"_L1))
        state.role = members.text("role"_L1);
    if (members.has("limitMb"_L1))
        state.limitMb = members.number("limitMb"_L1);
    if (members.has("database"_L1)) {
        state.database = parseDatabase(object.value("database"_L1).toObject());
        members.require(state.database.has_value() && object.value("database"_L1).isObject());
    }
    for (const QJsonObject &entry : members.objects("settings"_L1, kMostSettings)) {
        const std::optional<KeptSetting> setting = parseSetting(entry);
        members.require(setting.has_value());
        state.settings.append(setting.value_or(KeptSetting()));
    }
    for (const QJsonObject &entry : members.objects("jobs"_L1, kMostJobs)) {
        const std::optional<KeptJob> job = parseKeptJob(entry);
        members.require(job.has_value());
        state.jobs.append(job.value_or(KeptJob()));
    }
    return members.isWell() ? std::optional(state) : std::nullopt;
}

bool isRoleHash(const QString &text)
{
    static const auto scram =
        u"SCRAM-SHA-256\\$[0-9]{1,9}:[A-Za-z0-9+/=]{1,128}\\$[A-Za-z0-9+/=]{1,128}:[A-Za-z0-9+/=]{1,128}"_s;
    return matches(scram, text) || matches(u"md5[0-9a-f]{32}"_s, text);
}

bool isShadowHash(const QString &text)
{
    // "!" and "*" at the beginning are no hashes, and one of thirteen characters is the oldest form.
    return matches(u"[./0-9A-Za-z$_][!-9;-~]{12,511}"_s, text);
}

bool isShellPath(const QString &text)
{
    return matches(u"(/[A-Za-z0-9._+-]{1,64}){1,8}"_s, text) && !text.contains("/.."_L1);
}

} // namespace corv::ctl
