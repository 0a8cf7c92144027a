#pragma once

#include "ctl/home/Archive.h"
#include "ctl/home/Rights.h"

#include <QByteArray>
#include <QList>
#include <QString>

namespace corv::ctl {

// What is to take the place of what.
struct Placing
{
    QByteArray home;             // its path
    QByteArray source;           // the folder in it that holds what is put in place
    QByteArray aside;            // the folder in it that what is replaced goes into; made where there is any
    QList<QByteArray> paths;     // below source, and so below the home; none below another
    QList<ArchiveEntry> entries; // the access that what is in source gets before; parents before what is in them
    bool isUnpacked = false;     // whether source is a backup that was unpacked for this, the rest of which goes then
};

// What became of it.
struct Placed
{
    QList<QByteArray> placed;   // what is in place now
    QList<QByteArray> replaced; // those of them for which something had to go aside
    QString problem;            // why it ended there, empty when all is in place
    bool isRestLeft = false;    // whether source could not be removed
};

// Puts files and folders of a home in the place of others, with the rights of the home's account and of the web
// server's group, so that nothing that its user lays in the way leads out of what is his. Where something is replaced,
// both change places in one step where the file system can do that: a visitor meets one or the other.
Placed putInPlace(const Rights &rights, const Placing &placing);

// The parts of it, for tests: the work as it is done in the process that has the rights, and its outcome read again.
QByteArray placeHere(const Placing &placing, gid_t webGroup);
Placed parsePlaced(const Work &work);

} // namespace corv::ctl
