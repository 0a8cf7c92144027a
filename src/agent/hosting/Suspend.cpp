#include "agent/hosting/Database.h"
#include "agent/hosting/Existing.h"
#include "agent/hosting/Hosting.h"
#include "agent/hosting/Ids.h"
#include "agent/hosting/Processes.h"
#include "agent/hosting/Web.h"
#include "agent/postgres/Sessions.h"
#include "common/Account.h"
#include "common/Paths.h"
#include "common/Pool.h"
#include "common/Psql.h"
#include "common/Run.h"
#include "common/Site.h"

#include <QFile>

#include <cstdio>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

// Whether the domain in the user database is fit for the site file. Its user may have changed it, where they have a
// password, and would otherwise write lines of Apache's configuration as root.
bool hasSafeDomain(const QString &domain)
{
    return domain.isEmpty() || isStoredDomain(domain);
}

bool writeSite(const QString &user, const QString &domain, bool php, bool suspended)
{
    return writeFile(sitePath(user), vhost(user, domain, php, suspended).toUtf8(), kWorldReadable);
}

void renamePool(const QString &from, const QString &to)
{
    // A pool that is in the way is the newer one.
    if (exists(from) && !exists(to))
        (void)QFile::rename(from, to);
}

// Puts the pools of all PHP versions but one aside. What an earlier suspension put aside there is out of date.
void parkPoolsBut(const QString &php, const QString &user)
{
    for (const QString &version : phpVersions()) {
        if (version != php)
            (void)std::rename(QFile::encodeName(poolPath(version, user)).constData(),
                              QFile::encodeName(parkedPoolPath(version, user)).constData());
    }
}

} // namespace

Reply suspend(const QJsonObject &args)
{
    QString user;
    if (const QString problem = checkExisting(args, &user); !problem.isEmpty())
        return fail(problem);
    const QString domain = domainOf(user);
    if (!hasSafeDomain(domain))
        return fail(u"that is not a valid domain name"_s);

    const QString php = phpVersion();
    if (!writeSite(user, domain, false, true))
        return fail(u"cannot write the Apache site"_s);
    if (!php.isEmpty())
        renamePool(poolPath(php, user), parkedPoolPath(php, user));
    parkPoolsBut(php, user);

    const QString webError = reloadWeb(php);
    const QString userError = run(u"usermod"_s, {u"--lock"_s, u"--expiredate"_s, u"1"_s, user});
    postgres::lockRole(user);
    const QString databaseError = psql(loginScript(user, false));
    (void)run(u"pkill"_s, {u"-u"_s, user}); // whoever has no process is fine
    if (const std::optional<Ids> ids = idsOf(user))
        endProcesses(ids->user); // those that stay when they are asked to go
    return result(joined({webError, userError, databaseError}));
}

Reply resume(const QJsonObject &args)
{
    QString user;
    if (const QString problem = checkExisting(args, &user); !problem.isEmpty())
        return fail(problem);
    const QString domain = domainOf(user);
    if (!hasSafeDomain(domain))
        return fail(u"that is not a valid domain name"_s);

    const QString php = phpVersion();
    if (!php.isEmpty())
        renamePool(parkedPoolPath(php, user), poolPath(php, user));
    parkPoolsBut(php, user); // one under another version would listen on the same socket
    if (!writeSite(user, domain, !php.isEmpty(), false))
        return fail(u"cannot write the Apache site"_s);

    const QString webError = reloadWeb(php);
    const QString userError = run(u"usermod"_s, {u"--unlock"_s, u"--expiredate"_s, QString(), user});
    postgres::endHolders(user);
    const QString databaseError = psql(loginScript(user, true));
    return result(joined({webError, userError, databaseError}));
}

} // namespace corv::hosting
