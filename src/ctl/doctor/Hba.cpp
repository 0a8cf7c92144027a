#include "ctl/doctor/Hba.h"

#include "common/Account.h"
#include "common/Json.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// The file has no way to write these within quotes.
bool canBeWritten(const QString &name)
{
    return !name.isEmpty() && std::none_of(name.cbegin(), name.cend(), [](QChar c) { return c == u'"' || c < u' '; });
}

QString quoted(const QString &name)
{
    return u'"' + name + u'"';
}

QString rolesOf(const Reach &reach)
{
    QStringList names;
    for (const QString &role : reach.roles) {
        if (canBeWritten(role))
            names.append(quoted(role));
    }
    return reach.roles.isEmpty() ? u"all"_s : names.join(u',');
}

// The lines in the place of one. rest: all that stands behind its databases and roles.
QList<QByteArray> linesFor(const QString &type, const QString &rest, const QList<Reach> &others)
{
    QList<QByteArray> lines;
    const auto add = [&](const QString &database, const QString &role) {
        if (!role.isEmpty())
            lines.append(u"%1 %2 %3 %4"_s.arg(type.leftJustified(7), database, role, rest).toUtf8());
    };
    add(u"all"_s, u"postgres"_s);
    if (type == "local"_L1)
        add(u"all"_s, u"+corv_restore"_s); // a member for the time of its restore
    add(u"samerole"_s, u"all"_s);
    add(u"postgres"_s, u"+pg_monitor"_s);
    for (const Reach &reach : others) {
        if (canBeWritten(reach.database))
            add(quoted(reach.database), rolesOf(reach));
    }
    return lines;
}

} // namespace

const QString kHbaQuery =
    u"SELECT json_build_object('file', current_setting('hba_file'), 'databases', (SELECT coalesce(json_agg("
    "json_build_object('name', datname, 'owner', pg_get_userbyid(datdba), "
    "'open', has_database_privilege('public', d.oid, 'CONNECT'), "
    "'roles', (SELECT coalesce(json_agg(rolname ORDER BY rolname), '[]') FROM pg_roles AS r WHERE rolcanlogin "
    "AND NOT rolsuper AND has_database_privilege(r.oid, d.oid, 'CONNECT'))) ORDER BY datname), '[]') "
    "FROM pg_database AS d WHERE datname NOT IN ('template0', 'template1', 'postgres')))"_s;

std::optional<HbaFacts> parseHbaFacts(const QByteArray &answer)
{
    const QJsonObject object = parseObject(answer);
    if (!object.value("databases"_L1).isArray() || !object.value("file"_L1).toString().startsWith(u'/'))
        return {};
    HbaFacts facts = {object.value("file"_L1).toString(), {}};
    for (const auto &value : object.value("databases"_L1).toArray()) {
        const QJsonObject database = value.toObject();
        const QString name = database.value("name"_L1).toString();
        const bool isOpen = database.value("open"_L1).toBool();
        QStringList roles;
        for (const auto &role : database.value("roles"_L1).toArray())
            roles.append(role.toString());
        // An account's own: its name is its role's.
        if (!isOpen && hosting::validUsername(name) && database.value("owner"_L1) == name)
            continue;
        if (isOpen || !roles.isEmpty())
            facts.others.append({name, isOpen ? QStringList() : roles});
    }
    return facts;
}

QList<HbaChange> hbaChanges(const QByteArray &text, const QList<Reach> &others)
{
    static const QRegularExpression pattern(
        u"\\A\\s*(local|host|hostssl|hostnossl|hostgssenc|hostnogssenc)\\s+all\\s+all\\s+(\\S.*)\\z"_s);
    static const QRegularExpression reject(u"\\A(?:[^#]*\\s)?reject(?:\\s|\\z)"_s);
    QList<HbaChange> changes;
    for (const QByteArray &line : text.split('\n')) {
        const QRegularExpressionMatch match = pattern.match(QString::fromUtf8(line));
        if (match.hasMatch() && !reject.match(match.captured(2)).hasMatch())
            changes.append({line, linesFor(match.captured(1), match.captured(2), others)});
    }
    return changes;
}

QByteArray withChanges(const QByteArray &text, const QList<HbaChange> &changes)
{
    QList<QByteArray> lines;
    for (const QByteArray &line : text.split('\n')) {
        const auto change = std::find_if(changes.cbegin(), changes.cend(),
                                         [&line](const HbaChange &one) { return one.before == line; });
        if (change == changes.cend()) {
            lines.append(line);
            continue;
        }
        lines.append("# before corvctl database harden: " + line);
        lines += change->after;
    }
    return lines.join('\n');
}

} // namespace corv::ctl
