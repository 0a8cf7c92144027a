#pragma once

#include "ctl/doctor/Finding.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// The one of the names that differs from this one by the fewest letters, at most two and a third of it; empty for none.
QString nearestName(const QString &name, const QStringList &names);

// What is wrong with the keys of a settings file, each written SECTION/KEY: those that nothing reads. path is the
// file's.
QList<Finding> checkSettings(const QStringList &keys, const QString &path);

// The mount point, other than the root's, that /etc/fstab or the server's own mount units plan for the folder, by the
// text of the first and the texts of the others; the nearest one where there are several. Empty for none.
QString plannedMount(const QString &folder, const QByteArray &fstab, const QList<QByteArray> &units);

// Whether something is mounted at that point, by the text of /proc/self/mounts.
bool isMounted(const QString &point, const QByteArray &mounts);

// Whether backups go to the disk that they are meant for, where point is what is planned for the destination.
QList<Finding> checkDestination(const QString &destination, const QString &point, bool isMounted);

} // namespace corv::ctl
