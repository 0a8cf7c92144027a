#include "ctl/doctor/Database.h"

#include "common/Json.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// The first minor release of each major one in which neither a dump nor a restore opens a hole that is known.
//
// Releases of August 2025: whoever owns an object of a database could put commands into its dump that a restore ran, on
// the client as on the server (CVE-2025-8714, CVE-2025-8715). They hold all earlier corrections of pg_dump too, such as
// that of August 2024, without which the owner of an object had his own functions run with the rights of the superuser
// who dumps it (CVE-2024-7348). 18 has had these corrections from its first release on, and what is older than 13 got
// none.
struct Release
{
    int major;
    int minor;
};
constexpr Release kSafeReleases[] = {{13, 22}, {14, 19}, {15, 14}, {16, 10}, {17, 6}};
constexpr int kFirstSafeMajor = 18;
constexpr auto kReason = "a dump can carry commands of a tenant that its restore runs as the superuser "
                         "(CVE-2025-8714, CVE-2025-8715)"_L1;

constexpr auto kPanelName = "corvane"_L1;
constexpr auto kPanelRole = "corv-web"_L1;

// The minor release that a major one needs; nothing for one that never got the corrections.
std::optional<int> safeMinor(int major)
{
    if (major >= kFirstSafeMajor)
        return 0;
    const auto *const found = std::find_if(std::begin(kSafeReleases), std::end(kSafeReleases),
                                           [major](const Release &release) { return release.major == major; });
    return found == std::end(kSafeReleases) ? std::nullopt : std::optional(found->minor);
}

} // namespace

const QString kDatabasesQuery =
    u"SELECT json_build_object("
    "'version', current_setting('server_version_num')::int, "
    "'roles', (SELECT coalesce(json_agg(json_build_object('name', rolname, 'login', rolcanlogin, 'plain', "
    "NOT (rolsuper OR rolcreaterole OR rolcreatedb OR rolreplication OR rolbypassrls), 'bare', NOT EXISTS (SELECT FROM "
    "pg_shdepend WHERE refclassid = 'pg_authid'::regclass AND refobjid = pg_roles.oid) AND NOT EXISTS (SELECT FROM "
    "pg_auth_members WHERE roleid = pg_roles.oid OR member = pg_roles.oid))), '[]') FROM pg_roles), "
    "'databases', (SELECT coalesce(json_agg(json_build_object('name', datname, 'owner', pg_get_userbyid(datdba), "
    "'open', has_database_privilege('public', oid, 'CONNECT'), 'template', datistemplate, 'closed', NOT datallowconn, "
    "'invalid', datconnlimit = -2, 'holders', (SELECT coalesce(json_agg(DISTINCT held.pid), '[]') FROM pg_locks AS "
    "held "
    "JOIN pg_stat_activity AS session USING (pid) WHERE held.database = pg_database.oid AND held.granted "
    "AND held.locktype = 'relation' AND held.mode = 'AccessExclusiveLock' "
    "AND session.xact_start < now() - interval '10 seconds'))), '[]') "
    "FROM pg_database WHERE datname NOT IN ('template0', 'template1')), "
    "'shared', (SELECT coalesce(json_agg(datname ORDER BY datname), '[]') FROM pg_database "
    "WHERE datname IN ('postgres', 'template1') AND has_database_privilege('public', oid, 'CONNECT')), "
    "'hbaFile', current_setting('hba_file'), 'loose', (SELECT count(*) FROM pg_hba_file_rules "
    "WHERE 'all' = ANY (database) AND 'all' = ANY (user_name) AND auth_method <> 'reject'))"_s;

std::optional<Databases> parseDatabases(const QByteArray &answer)
{
    const QJsonObject object = parseObject(answer);
    if (!object.value("roles"_L1).isArray() || !object.value("databases"_L1).isArray())
        return {};

    Databases found;
    found.version = object.value("version"_L1).toInt();
    for (const auto &value : object.value("roles"_L1).toArray()) {
        const QJsonObject role = value.toObject();
        found.roles.append({role.value("name"_L1).toString(), role.value("login"_L1).toBool(),
                            role.value("plain"_L1).toBool(), role.value("bare"_L1).toBool()});
    }
    for (const auto &value : object.value("databases"_L1).toArray()) {
        const QJsonObject database = value.toObject();
        QList<int> holders;
        for (const auto &holder : database.value("holders"_L1).toArray())
            holders.append(holder.toInt());
        found.databases.append({database.value("name"_L1).toString(), database.value("owner"_L1).toString(),
                                database.value("open"_L1).toBool(), database.value("template"_L1).toBool(),
                                database.value("closed"_L1).toBool(), database.value("invalid"_L1).toBool(), holders});
    }
    for (const auto &name : object.value("shared"_L1).toArray())
        found.openShared.append(name.toString());
    found.hbaFile = object.value("hbaFile"_L1).toString();
    found.looseRules = object.value("loose"_L1).toInt();
    return found;
}

std::optional<PostgresVersion> parsePostgresVersion(const QByteArray &text)
{
    static const QRegularExpression pattern(u"\\A(\\S+) \\(PostgreSQL\\) (\\d{1,4})(?:\\.(\\d{1,4}))?(?:\\D|\\z)"_s);
    const QRegularExpressionMatch match = pattern.match(QString::fromUtf8(text));
    if (!match.hasMatch())
        return {};
    return PostgresVersion{match.captured(1), match.captured(2).toInt(), match.captured(3).toInt()};
}

const Role *findRole(const Databases &databases, const QString &name)
{
    const auto found = std::find_if(databases.roles.cbegin(), databases.roles.cend(),
                                    [&name](const Role &role) { return role.name == name; });
    return found == databases.roles.cend() ? nullptr : &*found;
}

const Database *findDatabase(const Databases &databases, const QString &name)
{
    const auto found = std::find_if(databases.databases.cbegin(), databases.databases.cend(),
                                    [&name](const Database &database) { return database.name == name; });
    return found == databases.databases.cend() ? nullptr : &*found;
}

QList<Finding> checkPostgresVersions(const QList<PostgresVersion> &programs)
{
    QList<Finding> findings;
    for (const PostgresVersion &program : programs) {
        const std::optional<int> minor = safeMinor(program.major);
        if (minor && program.minor >= *minor)
            continue;
        const QString version = u"%1.%2"_s.arg(program.major).arg(program.minor);
        if (!minor) {
            findings.append({Level::Fault,
                             u"%1 is of PostgreSQL %2, which gets no corrections any more: %3"_s.arg(program.program,
                                                                                                     version, kReason),
                             u"apt-get install postgresql"_s});
            continue;
        }
        findings.append(
            {Level::Fault,
             u"%1 is of PostgreSQL %2; before %3.%4 %5"_s.arg(program.program, version, QString::number(program.major),
                                                              QString::number(*minor), kReason),
             u"apt-get update && apt-get install --only-upgrade postgresql-%1 postgresql-client-%1"_s.arg(
                 program.major)});
    }
    return findings;
}

QList<Finding> checkPostgresServers(int major, const QList<int> &installed)
{
    const auto newest = std::max_element(installed.cbegin(), installed.cend());
    if (newest == installed.cend() || *newest <= major)
        return {};
    // An upgrade of Debian leaves them where they are, beside an empty cluster that only the owner knows to be empty.
    return {
        {Level::Note,
         u"the databases are with PostgreSQL %1, and PostgreSQL %2 is installed beside it"_s.arg(major).arg(*newest),
         u"less /usr/share/doc/corv-agent/php.md"_s}};
}

QList<Obstacle> obstaclesOf(const Database &database)
{
    // Only names that need no quotes are put into statements here.
    const QString &name = database.name;
    QList<Obstacle> found;
    if (database.isInvalid) {
        // What it held is gone; an empty one in its place can be dumped.
        return {
            {u"the database %1 is what a drop left that was cut off"_s.arg(name), u"DROP DATABASE \"%1\""_s.arg(name)},
            {u"the account %1 needs a database in its place"_s.arg(name),
             u"CREATE DATABASE \"%1\" OWNER \"%1\""_s.arg(name)},
            {u"which no other may enter"_s, u"REVOKE ALL ON DATABASE \"%1\" FROM PUBLIC"_s.arg(name)}};
    }
    if (database.isTemplate)
        found.append({u"the database %1 is a template, so it cannot be dropped"_s.arg(name),
                      u"ALTER DATABASE \"%1\" IS_TEMPLATE false"_s.arg(name)});
    if (database.isClosed)
        found.append({u"the database %1 lets nobody in, so it cannot be dumped"_s.arg(name),
                      u"ALTER DATABASE \"%1\" ALLOW_CONNECTIONS true"_s.arg(name)});
    for (const int holder : database.holders)
        found.append({u"a session keeps a whole table of the database %1 to itself, so it cannot be dumped"_s.arg(name),
                      u"SELECT pg_catalog.pg_terminate_backend(%1)"_s.arg(holder)});
    return found;
}

QList<Obstacle> obstaclesOfAccount(const QString &account, const Databases &databases)
{
    QList<Obstacle> found;
    if (!findRole(databases, account)) {
        found.append(
            {u"the account %1 has no role in PostgreSQL"_s.arg(account), u"CREATE ROLE \"%1\" NOLOGIN"_s.arg(account)});
    }
    if (const Database *const database = findDatabase(databases, account))
        return found + obstaclesOf(*database);
    if (findDatabase(databases, account + u"__old"_s)) {
        found.append({u"a restore that was cut off left the database of the account %1 as %1__old"_s.arg(account),
                      u"ALTER DATABASE \"%1__old\" RENAME TO \"%1\""_s.arg(account)});
        return found;
    }
    found.append({u"the account %1 has no database, so it cannot be dumped"_s.arg(account),
                  u"CREATE DATABASE \"%1\" OWNER \"%1\""_s.arg(account)});
    found.append({u"which no other may enter"_s, u"REVOKE ALL ON DATABASE \"%1\" FROM PUBLIC"_s.arg(account)});
    return found;
}

QList<Finding> checkSharedDatabases(const Databases &databases)
{
    QList<Finding> findings;
    for (const QString &name : databases.openShared) {
        findings.append(
            {Level::Fault,
             u"every role may connect to the database %1, which all share: what it leaves or holds there stops others"_s
                 .arg(name),
             u"runuser -u postgres -- psql -c 'REVOKE CONNECT, TEMPORARY ON DATABASE \"%1\" FROM PUBLIC'"_s.arg(name)});
    }
    if (databases.looseRules > 0) {
        findings.append({Level::Note,
                         u"%1 lets every role try every database, in %2 of its lines"_s.arg(
                             databases.hbaFile, QString::number(databases.looseRules)),
                         u"corvctl database harden"_s});
    }
    return findings;
}

QList<Finding> checkPanelDatabase(const Databases &databases)
{
    const Database *const database = findDatabase(databases, kPanelName);
    if (database && database->owner == kPanelRole)
        return {};
    if (database) {
        return {{Level::Fault, u"the panel's database corvane belongs to %1, not to corv-web"_s.arg(database->owner),
                 uR"(runuser -u postgres -- psql -c 'ALTER DATABASE corvane OWNER TO "corv-web"')"_s}};
    }
    return {{Level::Fault, u"the panel's database corvane is missing"_s, u"/usr/libexec/corvane/panel-database"_s}};
}

} // namespace corv::ctl
