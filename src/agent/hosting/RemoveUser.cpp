#include "agent/hosting/RemoveUser.h"

#include "agent/hosting/Ids.h"
#include "agent/hosting/Leftovers.h"
#include "agent/hosting/Processes.h"
#include "common/Account.h"
#include "common/Run.h"
#include "common/TenantMounts.h"

#include <QFile>

#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

// A folder on which the user has mounted something cannot be removed, nor looked into by root.
void detachFromHome(const QString &user)
{
    detachMounts(tenantMounts(QFile::encodeName(homePath(user)).constData()));
}

} // namespace

QString removeUser(const QString &user)
{
    const std::optional<Ids> ids = idsOf(user);
    if (ids)
        (void)keepIds(*ids); // where nothing can be written to /etc the user cannot be removed either
    detachFromHome(user);
    removeDeepFolders(user);

    const QString error = runInHomes(u"userdel"_s, {u"--remove"_s, user});
    if (!ids)
        return error;

    // Those that kept userdel from its work, too: the next attempt, be it by hand, succeeds.
    endProcesses(ids->user);
    // An account that is still there keeps its jobs and its files, until a deletion comes through.
    if (::getpwnam(user.toLocal8Bit().constData()))
        return error;
    detachFromHome(user); // mounted again by a process that ran until now
    removeHome(user, *ids);
    removeLeftovers(user, *ids);
    return error;
}

} // namespace corv::hosting
