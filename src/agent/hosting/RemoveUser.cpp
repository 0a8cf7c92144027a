#include "agent/hosting/RemoveUser.h"

#include "agent/hosting/Ids.h"
#include "agent/hosting/Leftovers.h"
#include "agent/hosting/Processes.h"
#include "common/Run.h"

#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {

QString removeUser(const QString &user)
{
    const std::optional<Ids> ids = idsOf(user);
    if (ids)
        (void)keepIds(*ids); // where nothing can be written to /etc the user cannot be removed either
    removeDeepFolders(user);

    const QString error = runInHomes(u"userdel"_s, {u"--remove"_s, user});
    if (!ids)
        return error;

    // Those that kept userdel from its work, too: the next attempt, be it by hand, succeeds.
    endProcesses(ids->user);
    // An account that is still there keeps its jobs and its files, until a deletion comes through.
    if (::getpwnam(user.toLocal8Bit().constData()))
        return error;
    removeHome(user, *ids);
    removeLeftovers(user, *ids);
    return error;
}

} // namespace corv::hosting
