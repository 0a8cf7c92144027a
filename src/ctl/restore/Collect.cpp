#include "ctl/restore/Collect.h"

#include "common/Account.h"
#include "common/Fd.h"
#include "common/Json.h"
#include "common/Paths.h"
#include "ctl/doctor/AccountFacts.h"
#include "ctl/doctor/Facts.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>

#include <fcntl.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qint64 kMebibyte = 1'048'576;
constexpr auto kCrontabs = "/var/spool/cron/crontabs"_L1;
constexpr auto kJobs = "/var/spool/cron/atjobs"_L1;
constexpr auto kLingering = "/var/lib/systemd/linger"_L1;

AccountState systemState(const hosting::User &user, const QStringList &phpVersions, const Used &used)
{
    AccountState state;
    state.username = user.name;
    state.taken = QDateTime::currentSecsSinceEpoch();
    state.uid = user.uid;
    state.domain = hosting::domainIn(user.comment);
    const QByteArray name = user.name.toLatin1();
    if (const passwd *entry = ::getpwnam(name.constData()))
        state.shell = QString::fromLocal8Bit(entry->pw_shell);
    if (const spwd *entry = ::getspnam(name.constData()))
        state.shadow = QString::fromLatin1(entry->sp_pwdp);
    state.lingers = exists(kLingering + u'/' + user.name);
    const QString crontab = kCrontabs + u'/' + user.name;
    state.crontab = bareCrontab(boundedText(crontab, kLargestCrontab));
    if (QFileInfo(crontab).size() > kLargestCrontab)
        state.leftOut.append(u"crontab"_s);
    bool isWhole = true;
    state.jobs = jobsOf(user.uid, &isWhole);
    if (!isWhole)
        state.leftOut.append(u"at jobs"_s);
    if (used.source == "quotas"_L1)
        state.limitMb = (used.limits.value(user.name) + kMebibyte - 1) / kMebibyte;

    const AccountParts parts = readAccount(user, phpVersions);
    state.isSuspended = parts.expired;
    state.php = parts.pools + parts.parkedPools;
    return state;
}

} // namespace

// What is too large to be meant is left where it is: an account makes up settings of any size. An array that is small
// where it is stored may still be large, hence the second look at each.
const QString kRolesQuery = uR"(SELECT json_build_object('name', r.rolname, 'role', coalesce(r.rolpassword, ''),
'database', CASE WHEN d.oid IS NOT NULL THEN json_build_object('encoding', pg_encoding_to_char(d.encoding),
'collate', d.datcollate, 'ctype', d.datctype) END,
'settings', (SELECT json_agg(json_build_object('scope', CASE WHEN s.setrole = 0 THEN 'database'
WHEN s.setdatabase = 0 THEN 'role' ELSE 'role in database' END, 'text', c) ORDER BY s.setrole, s.setdatabase, c)
FROM pg_db_role_setting s, unnest(s.setconfig) c WHERE pg_column_size(s.setconfig) <= 65536 AND length(c) <= 8192
AND ((s.setdatabase = d.oid AND s.setrole IN (0, r.oid)) OR (s.setdatabase = 0 AND s.setrole = r.oid))))
FROM pg_authid r LEFT JOIN pg_database d ON d.datname = r.rolname AND d.datconnlimit <> -2
WHERE r.rolname ~ '^[a-z][a-z0-9]{2,15}$')"_s;

bool addRole(const QByteArray &line, QList<AccountState> *states)
{
    const QJsonObject role = parseObject(line);
    const QString name = role.value("name"_L1).toString();
    const auto state =
        std::find_if(states->begin(), states->end(), [&name](const AccountState &one) { return one.username == name; });
    if (name.isEmpty() || state == states->end())
        return false;
    state->role = role.value("role"_L1).toString();
    if (const QJsonObject database = role.value("database"_L1).toObject(); !database.isEmpty()) {
        state->database = KeptDatabase{database.value("encoding"_L1).toString(),
                                       database.value("collate"_L1).toString(), database.value("ctype"_L1).toString()};
    }
    qint64 left = kLargestSettings;
    for (const auto &value : role.value("settings"_L1).toArray()) {
        const QString scope = value.toObject().value("scope"_L1).toString();
        const QString text = value.toObject().value("text"_L1).toString();
        const KeptSetting setting = {scope == "database"_L1 ? KeptSetting::Scope::Database
                                     : scope == "role"_L1   ? KeptSetting::Scope::Role
                                                            : KeptSetting::Scope::RoleInDatabase,
                                     text.section(u'=', 0, 0), text.section(u'=', 1)};
        // What cannot be read again must not cost the account all of its line.
        AccountState alone;
        alone.username = name;
        alone.settings = {setting};
        const QByteArray written = stateLine(alone);
        left -= written.size();
        if (left >= 0 && state->settings.size() < kMostSettings && parseStateLine(written))
            state->settings.append(setting);
        else if (!state->leftOut.contains(u"settings"_s))
            state->leftOut.append(u"settings"_s);
    }
    return true;
}

QList<AccountState> collectStates(QString *problem)
{
    QList<AccountState> states;
    const QStringList versions = phpVersions();
    // Of what is used nothing is wanted but limits, which no backup tells.
    const Used used = readUsed({});
    for (const hosting::User &user : hosting::users()) {
        if (hosting::hasMarker(user.comment) && hosting::validUsername(user.name))
            states.append(systemState(user, versions, used));
    }
    if (states.isEmpty())
        return states;
    const Outcome outcome = runStatements({kRolesQuery});
    if (!outcome.succeeded)
        *problem = u"PostgreSQL does not tell of its roles: "_s + QString::fromUtf8(outcome.errors).simplified();
    for (const QByteArray &line : outcome.output.split('\n'))
        (void)addRole(line, &states);
    return states;
}

QList<KeptJob> jobsOf(uid_t uid, bool *isWhole)
{
    QList<KeptJob> jobs;
    bool hasAll = true;
    qint64 left = kLargestJobs;
    for (const QFileInfo &file : QDir(kJobs).entryInfoList(QDir::Files | QDir::NoSymLinks, QDir::Name)) {
        if (file.ownerId() != uid)
            continue;
        if (file.size() > left || jobs.size() >= kMostJobs) {
            hasAll = false;
            continue;
        }
        const std::optional<KeptJob> job = parseJob(file.fileName().toLatin1(), boundedText(file.filePath(), left));
        if (!job)
            continue;
        left -= job->script.size();
        jobs.append(*job);
    }
    if (isWhole)
        *isWhole = hasAll;
    std::sort(jobs.begin(), jobs.end(), [](const KeptJob &one, const KeptJob &other) { return one.time < other.time; });
    return jobs;
}

QByteArray boundedText(const QString &path, qint64 most)
{
    const Fd descriptor(
        ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    QFile file;
    if (!descriptor || ::fstat(descriptor.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > most ||
        !file.open(descriptor.get(), QIODevice::ReadOnly))
        return {};
    return file.read(most);
}

} // namespace corv::ctl
