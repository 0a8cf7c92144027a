#pragma once

#include <QString>
#include <QStringList>

namespace corv::files {

// The file helper, a process of its own under an account's user: does one operation in the account's home and answers
// on standard output. args: the operation, the home, the path in it and, for "rename", the new path. Returns the exit
// status. The user's rights are the fence; that paths stay in the home comes on top.
int helper(const QStringList &args);

// The normalised absolute path of what path names in home, empty when that is outside of home. Goes by the text alone:
// links are not followed.
QString resolve(const QString &home, const QString &path);

} // namespace corv::files
