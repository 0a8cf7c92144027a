#pragma once

#include "common/Fd.h"

#include <QByteArray>

#include <sys/types.h>

namespace corv::ctl {

// Ways into a home that follow no link: each name of a path is looked up by itself, in a folder that is open.

// The path with its slashes put right ("a//b/" is "a/b"); empty when it is none that stays inside a folder, such as
// "..", "/etc" or ".".
QByteArray insidePath(const QByteArray &path);

// What stands before the last slash of such a path, and behind it.
QByteArray parentOf(const QByteArray &path);
QByteArray nameOf(const QByteArray &path);

// Opens the folder at such a path below an open one, for use with names in it; the folder itself for an empty path.
// None, with errno set, where a part of the path is missing, a link or no folder.
Fd openBeneath(int folder, const QByteArray &path);

// Gives what has that name in a folder to a group and sets its mode, without following a link and if it is a regular
// file or a folder of this user's. A file's special bits are never set. A group of -1 stays as it is.
bool setAccess(int folder, const QByteArray &name, gid_t group, mode_t mode);

// Gives a symbolic link itself to a group; its mode counts for nothing.
bool giveLink(int folder, const QByteArray &name, gid_t group);

} // namespace corv::ctl
