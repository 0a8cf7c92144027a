#include "agent/postgres/Sessions.h"

#include "agent/postgres/Server.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::postgres {
namespace {

// A session that is ended takes a moment; each look waits a tenth of a second for it, or twice that for a lock.
constexpr int kLooks = 25;

// A row that a transaction has changed is told in no list of locks, but that it has changed some row of the table is.
// Whoever was given the role may change it as well. The account's name is letters and digits, and so may stand in a
// statement as it is.
const auto kHolders = uR"(FROM pg_stat_activity AS session JOIN pg_roles AS their ON their.oid = session.usesysid
WHERE NOT their.rolsuper AND (EXISTS (SELECT FROM pg_locks AS held WHERE held.pid = session.pid
AND held.relation IN ('pg_authid'::regclass, 'pg_database'::regclass, 'pg_db_role_setting'::regclass)
AND held.mode <> 'AccessShareLock' AND EXISTS (SELECT FROM pg_roles AS own
WHERE own.rolname = '%1' AND pg_has_role(their.oid, own.oid, 'MEMBER')))
OR EXISTS (SELECT FROM pg_locks AS held WHERE held.pid = session.pid AND held.locktype = 'object'
AND ((held.classid = 'pg_database'::regclass AND held.objid = (SELECT oid FROM pg_database WHERE datname = '%1'))
OR (held.classid = 'pg_authid'::regclass AND held.objid = (SELECT oid FROM pg_roles WHERE rolname = '%1'))))%2))"_s;
const auto kAllOfTheAccount = u"\nOR session.usename = '%1' OR session.datname = '%1'"_s;

// Ends them until none is left. False where the server does not answer.
bool end(const QByteArray &socket, const QString &account, const QString &which)
{
    const QString statement = uR"(SELECT CASE WHEN count(pg_terminate_backend(session.pid)) > 0 THEN pg_sleep(0.1)::text
ELSE 'free' END )"_s + which;
    for (int look = 0; look < kLooks; ++look) {
        const std::optional<QByteArray> state = ask(socket, QString(statement).replace("%1"_L1, account).toLatin1());
        if (!state)
            return false;
        if (state == "free")
            return true;
    }
    return true;
}

// Ends them and takes the login away in one go, before any of them is back.
void endAndLock(const QString &account, const QString &which)
{
    const QByteArray socket = serverSocket();
    if (socket.isEmpty() || !end(socket, account, which))
        return;
    const QString statement = uR"(SET lock_timeout = '200ms';
DO $$ BEGIN PERFORM pg_terminate_backend(session.pid) )"_s +
                              which + uR"(;
IF EXISTS (SELECT FROM pg_roles WHERE rolname = '%1') THEN ALTER ROLE "%1" NOLOGIN; END IF;
END $$; SELECT 'locked')"_s;
    for (int look = 0; look < kLooks; ++look) {
        if (ask(socket, QString(statement).replace("%1"_L1, account).toLatin1()) == "locked")
            break;
    }
    (void)end(socket, account, which); // who came in before that
}

} // namespace

void endHolders(const QString &account)
{
    const QByteArray socket = serverSocket();
    if (!socket.isEmpty())
        (void)end(socket, account, QString(kHolders).remove("%2"_L1));
}

void lockRole(const QString &account)
{
    endAndLock(account, QString(kHolders).remove("%2"_L1));
}

void shutOut(const QString &account)
{
    endAndLock(account, QString(kHolders).replace("%2"_L1, kAllOfTheAccount));
}

} // namespace corv::postgres
