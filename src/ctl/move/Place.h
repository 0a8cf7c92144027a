#pragma once

#include "ctl/home/Archive.h"

#include <QList>
#include <QString>

namespace corv::ctl::moving {

// Ends what an attempt that was cut off may have left running as the account's user.
void endAttempt(const QString &account);

// Gives what has come into the folder kComing the modes and groups that the listing has, so that little is left to do
// for putComeInPlace. What cannot be given them now is left for that.
void prepareCome(const QString &account, const QList<ArchiveEntry> &listing);

// Puts what has come into the folder kComing in the place of what the agent has made of the home here, all but tmp, and
// gives it the modes and groups that the listing has. With the account's rights; each entry of the home changes places
// in one step. Returns why that could not be done, empty when it is.
QString putComeInPlace(const QString &account, const QList<ArchiveEntry> &listing);

// Takes what that may have put in place back into the folder, for another attempt that begins with it. What is served
// meanwhile is nothing.
QString takeBack(const QString &account);

} // namespace corv::ctl::moving
