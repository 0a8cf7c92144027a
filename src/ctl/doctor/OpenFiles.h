#pragma once

#include "ctl/doctor/Finding.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

namespace corv::ctl {

// The files that a process has open, and how many it may have.
struct OpenFiles
{
    qsizetype open = 0;
    qsizetype most = 0;
};

// How many files a process may have open, by the text of its /proc/PID/limits; 0 where that does not tell, or sets no
// limit.
qsizetype parseMostFiles(const QByteArray &limits);

// Those of the main process of a service; nothing where it does not run, or may have any number.
std::optional<OpenFiles> readOpenFiles(const QString &service);

// Whether Apache comes near the number of files beyond which a reload ends it.
QList<Finding> checkApacheFiles(const OpenFiles &files);

} // namespace corv::ctl
