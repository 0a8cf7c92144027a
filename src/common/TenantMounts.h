#pragma once

#include <QByteArray>
#include <QList>

namespace corv {

// Where something is mounted: the folders from / on, one by one.
using MountPlace = QList<QByteArray>;

// The places at or below a folder (an absolute path without links) where a user who is not root has mounted a file
// system of his own (FUSE), in the order of mountinfo, the text of /proc/PID/mountinfo; what is mounted twice is there
// twice. Root is refused all that is in one. What root mounted, a volume of homes for instance, is not among them, of
// whatever type it is.
QList<MountPlace> tenantMountsIn(const QByteArray &mountinfo, const QByteArray &folder);

// The same as this process has it now, of a folder whose path may hold links; empty where that cannot be told.
QList<MountPlace> tenantMounts(const char *folder);

// Takes these mounts out of the sight of this process and of all that have its mounts, as far as that can be had. No
// link on the way to one is followed, and none is asked for anything. May be called between fork and exec: it consists
// of system calls.
void detachMounts(const QList<MountPlace> &places);

} // namespace corv
