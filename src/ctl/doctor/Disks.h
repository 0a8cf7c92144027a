#pragma once

#include "ctl/doctor/Finding.h"

#include <QList>
#include <QString>

namespace corv::ctl {

// A file system that an account or what serves it makes files on, and for how many files it has room.
struct Disk
{
    QString mount;    // its mount point
    qint64 files = 0; // that it can hold in all
    qint64 free = 0;  // of these, left for users
};

// The file systems of homes, databases and logs, each once. One that has no limit of its own for the number of files
// (btrfs, for one) is not among them.
QList<Disk> readDisks();

// On which of these soon no file can be made, whatever the room for bytes.
QList<Finding> checkDisks(const QList<Disk> &disks);

} // namespace corv::ctl
