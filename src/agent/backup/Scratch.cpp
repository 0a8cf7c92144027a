#include "agent/backup/Scratch.h"

#include "agent/postgres/Server.h"
#include "common/Psql.h"

#include <optional>

using namespace Qt::Literals::StringLiterals;

namespace corv::backup {
namespace {

// A session that is ended takes a moment; each look waits a tenth of a second for it.
constexpr int kLooks = 50;

QString runScript(const QString &user, const QString &statements)
{
    static const auto names = uR"(\set u '%1'
\set tmp '%1__restore'
\set old '%1__old'
)"_s;
    return hosting::psql((names.arg(user) + statements).toLatin1());
}

// What the server answers, where one is there: a word, or nothing when it cannot be asked. The account's name is
// letters and digits, and so may stand in the statement as it is.
std::optional<QByteArray> askAbout(const QByteArray &socket, const QString &user, const QString &statement)
{
    if (socket.isEmpty())
        return {};
    return postgres::ask(socket, statement.arg(user).toLatin1());
}

} // namespace

QString prepareScratch(const QString &user)
{
    return runScript(user, uR"(SELECT format('DROP DATABASE IF EXISTS %I WITH (FORCE)', :'tmp') \gexec
SELECT format('CREATE DATABASE %I OWNER %I', :'tmp', :'u') \gexec
SELECT format('REVOKE ALL ON DATABASE %I FROM PUBLIC', :'tmp') \gexec
)"_s);
}

QString dropScratch(const QString &user)
{
    return runScript(user, uR"(SELECT format('DROP DATABASE IF EXISTS %I WITH (FORCE)', :'tmp') \gexec
)"_s);
}

QString swapScratchIn(const QString &user)
{
    return runScript(user, uR"(SELECT format('DROP DATABASE IF EXISTS %I WITH (FORCE)', :'old') \gexec
SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = :'u';
SELECT format('ALTER DATABASE %I RENAME TO %I', :'u', :'old') \gexec
SELECT format('ALTER DATABASE %I RENAME TO %I', :'tmp', :'u') \gexec
SELECT format('DROP DATABASE %I WITH (FORCE)', :'old') \gexec
)"_s);
}

QString checkBefore(const QString &user)
{
    const QByteArray socket = postgres::serverSocket();
    if (socket.isEmpty())
        return {};
    const std::optional<QByteArray> state = askAbout(socket, user, uR"(SELECT CASE
WHEN EXISTS (SELECT FROM pg_database WHERE datname = '%1__old')
 AND NOT EXISTS (SELECT FROM pg_database WHERE datname = '%1') THEN 'aside'
WHEN EXISTS (SELECT FROM pg_roles WHERE rolname = '%1' AND NOT rolcanlogin) THEN 'locked'
ELSE 'ready' END)"_s);
    if (!state)
        return u"PostgreSQL does not tell which databases there are"_s;
    if (*state == "aside") {
        return u"there is no database %1, and %1__old holds its data since a restore that was cut off; bring it back: "
               "runuser -u postgres -- psql -c 'ALTER DATABASE \"%1__old\" RENAME TO \"%1\"'"_s.arg(user);
    }
    if (*state == "locked")
        return u"%1 may not log in to PostgreSQL: resume the account first"_s.arg(user);
    return {};
}

QString checkFresh(const QString &user)
{
    const QByteArray socket = postgres::serverSocket();
    if (socket.isEmpty())
        return {};
    // Whose objects a database holds is told of all databases at once; what all new ones hold comes from the template.
    const std::optional<QByteArray> state = askAbout(socket, user, uR"(WITH owners AS (
SELECT datname, refobjid FROM pg_shdepend JOIN pg_database ON pg_database.oid = dbid
WHERE refclassid = 'pg_authid'::regclass)
SELECT CASE WHEN EXISTS (SELECT refobjid FROM owners WHERE datname = '%1__restore'
EXCEPT SELECT refobjid FROM owners WHERE datname = 'template1') THEN 'touched' ELSE 'fresh' END)"_s);
    if (state == "fresh")
        return {};
    return state ? u"another role has put something into %1__restore while it was made; try again"_s.arg(user)
                 : u"PostgreSQL does not tell what %1__restore holds"_s.arg(user);
}

QString clearScratch(const QString &user)
{
    const QByteArray socket = postgres::serverSocket();
    for (int look = 0; look < kLooks && !socket.isEmpty(); ++look) {
        const std::optional<QByteArray> state = askAbout(socket, user, uR"(SELECT CASE
WHEN count(pg_terminate_backend(pid)) > 0 THEN pg_sleep(0.1)::text
WHEN EXISTS (SELECT FROM pg_prepared_xacts WHERE database = '%1__restore') THEN 'prepared'
ELSE 'empty' END FROM pg_stat_activity WHERE datname = '%1__restore')"_s);
        if (state == "empty")
            return {};
        if (state == "prepared")
            return u"%1__restore holds a prepared transaction"_s.arg(user);
        if (!state)
            return u"PostgreSQL does not tell who is connected to %1__restore"_s.arg(user);
    }
    return socket.isEmpty() ? QString() : u"somebody stays connected to %1__restore"_s.arg(user);
}

QString shutOwnerOut(const QString &user, QByteArray *taken)
{
    const QByteArray socket = postgres::serverSocket();
    if (socket.isEmpty())
        return {};
    const std::optional<QByteArray> numbers = askAbout(socket, user, uR"(SELECT coalesce(string_agg(oid::text, ','), '')
FROM pg_database WHERE datname IN ('%1', '%1__restore') AND pg_get_userbyid(datdba) = '%1')"_s);
    if (!numbers)
        return u"PostgreSQL does not tell whose %1__restore is"_s.arg(user);
    *taken = *numbers;
    // A transaction of the role's that changes one of the two holds up everybody else who would: it is ended too.
    for (int look = 0; look < kLooks && !taken->isEmpty(); ++look) {
        const std::optional<QByteArray> state = askAbout(socket, user, uR"(SET lock_timeout = '200ms';
DO $$ DECLARE base name; BEGIN
PERFORM pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = '%1__restore'
OR (usename = '%1' AND pid IN (SELECT pid FROM pg_locks WHERE relation = 'pg_database'::regclass));
FOR base IN SELECT datname FROM pg_database WHERE datname IN ('%1', '%1__restore')
AND pg_get_userbyid(datdba) = '%1' LOOP EXECUTE format('ALTER DATABASE %I OWNER TO postgres', base); END LOOP;
END $$; SELECT 'shut')"_s);
        if (state == "shut")
            return {};
    }
    return taken->isEmpty() ? QString() : u"%1 keeps hold of its database"_s.arg(user);
}

QString letOwnerIn(const QString &user, const QByteArray &taken)
{
    if (taken.isEmpty())
        return {};
    const QByteArray socket = postgres::serverSocket();
    for (int look = 0; look < kLooks; ++look) {
        const std::optional<QByteArray> state = askAbout(socket, user, uR"(SET lock_timeout = '200ms';
DO $$ DECLARE base name; BEGIN
FOR base IN SELECT datname FROM pg_database WHERE oid IN (%2) LOOP EXECUTE format('ALTER DATABASE %I OWNER TO %I', base, '%1');
END LOOP; END $$; SELECT 'back')"_s.replace("%2"_L1, QString::fromLatin1(taken)));
        if (state == "back")
            return {};
    }
    return u"the database belongs to postgres now; give it back: "
           "runuser -u postgres -- psql -c 'ALTER DATABASE \"%1\" OWNER TO \"%1\"'"_s.arg(user);
}

void letIntoScratch(const QString &user, bool allowed)
{
    // What goes wrong shows in a login that is refused.
    (void)askAbout(postgres::serverSocket(), user,
                   allowed ? uR"(DO $$ BEGIN
IF EXISTS (SELECT FROM pg_roles WHERE rolname = 'corv_restore') THEN GRANT corv_restore TO "%1"; END IF;
END $$; SELECT 'done')"_s
                           : uR"(DO $$ BEGIN
IF EXISTS (SELECT FROM pg_roles WHERE rolname = 'corv_restore') THEN REVOKE corv_restore FROM "%1"; END IF;
END $$; SELECT 'done')"_s);
}

} // namespace corv::backup
