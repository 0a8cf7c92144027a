#include "agent/hosting/Database.h"
#include "agent/hosting/Existing.h"
#include "agent/hosting/Hosting.h"
#include "agent/hosting/RemoveUser.h"
#include "agent/hosting/Web.h"
#include "agent/postgres/Sessions.h"
#include "common/Archiver.h"
#include "common/Archives.h"
#include "common/Pool.h"
#include "common/Psql.h"
#include "common/Quotas.h"
#include "common/Run.h"
#include "common/Site.h"

#include <QDateTime>
#include <QDir>
#include <QFile>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

constexpr QFileDevice::Permissions kOwnerOnly =
    QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner;
constexpr QFileDevice::Permissions kOwnerFile = QFileDevice::ReadOwner | QFileDevice::WriteOwner;

// Where the two archives of a deletion that begins now go, less the ends of their names. The folder is made where it is
// missing, and never left open to others.
QString archiveBase(const QString &user)
{
    (void)QDir().mkpath(kArchives);
    (void)QFile::setPermissions(kArchives, kOwnerOnly);
    const QString now = QDateTime::currentDateTime().toString(u"yyyyMMdd-HHmmss"_s);
    return u"%1/%2-%3"_s.arg(kArchives, user, now);
}

// Copies the home and the database. Returns why one of them could not be copied, empty when both are.
QString archive(const QString &user, const QString &base)
{
    const QString files = base + u"-home.tar.gz"_s;
    const QString dump = base + u"-db.dump"_s;

    (void)run(u"pkill"_s, {u"-u"_s, user}); // whoever has no process is fine; the rest must not change files meanwhile
    if (const QString error =
            runWith(u"tar"_s, {u"-czf"_s, files, u"-C"_s, u"/home"_s, user}, {}, archiverSurroundings());
        !error.isEmpty())
        return u"could not archive the files, so nothing was deleted: "_s + error;

    if (const QString error =
            run(u"runuser"_s, {u"-u"_s, u"postgres"_s, u"--"_s, u"pg_dump"_s, u"-Fc"_s, user}, {}, nullptr, dump);
        !error.isEmpty())
        return u"could not dump the database, so nothing was deleted: "_s + error;

    (void)QFile::setPermissions(files, kOwnerFile);
    (void)QFile::setPermissions(dump, kOwnerFile);
    return {};
}

// Lifts the limit, which the file system keeps by number.
void clearQuota(const QString &user)
{
    if (quota::enabled())
        (void)quota::setLimit(user, 0);
}

void removeSite(const QString &user)
{
    (void)run(u"a2dissite"_s, {u"-q"_s, siteName(user)});
    (void)QFile::remove(sitePath(user));
    // Under every version: an FPM that finds a pool of a user who is gone does not load any.
    for (const QString &php : phpVersions()) {
        (void)QFile::remove(poolPath(php, user));
        (void)QFile::remove(parkedPoolPath(php, user));
    }
}

} // namespace

Reply remove(const QJsonObject &args)
{
    QString user;
    if (const QString problem = checkExisting(args, &user); !problem.isEmpty())
        return fail(problem);
    if (args.value("confirm"_L1).toString() != user)
        return fail(u"type the account name to confirm"_s);

    const QString base = archiveBase(user);
    if (const QString problem = archive(user, base); !problem.isEmpty())
        return fail(problem);

    // From here on nothing stops: half an account is worth nothing, and both copies are there.
    clearQuota(user);
    const QString php = phpVersion();
    removeSite(user);
    const QString webError = reloadWeb(php);
    postgres::shutOut(user);
    const QString databaseError = psql(dropDatabaseScript(user));
    const QString userError = removeUser(user);

    Reply reply = result(joined({webError, databaseError, userError}));
    reply.insert("archive"_L1, base + u"-*"_s);
    return reply;
}

} // namespace corv::hosting
