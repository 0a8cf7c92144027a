#pragma once

#include "common/FormerIds.h"

#include <QString>

namespace corv::hosting {

// What an account's user leaves outside the home: files where everybody may write, jobs of cron and at, a mark that
// keeps services running without a login, mail, memory shared between processes. All of it is looked for by our own
// calls, which follow no link, leave what belongs to others, and take some seconds at most.

// Removes what a user who is gone has left. Ends no process: see endProcesses.
void removeLeftovers(const QString &user, const Ids &ids);

// Before an account is made: takes what a former owner of the name has left out of its way, to a folder in
// /var/backups/corvane that is root's alone. So it does with a home that belongs to a user who is gone; one that is
// root's is meant for the account and stays.
void setAsideFormerOwner(const QString &user);

// The same for what belongs to the ids that the new user has been given: whoever had them before is gone.
void setAsideFormerFiles(const QString &user, const Ids &ids);

// Removes a home that is still there although its user is gone, if it belonged to that user.
void removeHome(const QString &user, const Ids &ids);

// Removes folders in the home that lie so deep that userdel would fail over them, as it does over paths that are longer
// than the kernel takes, or over more levels than it may have descriptors. Nothing else is touched.
void removeDeepFolders(const QString &user);

} // namespace corv::hosting
