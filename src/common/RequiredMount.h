#pragma once

#include <QByteArray>
#include <QString>

class QSettings;

namespace corv::backup {

// The mount point that has to be mounted before a backup is made, from the settings key backup/require_mount; empty
// where none is.
QString requiredMount(const QSettings &settings);

// Why no backup may be made to the destination, where point has to be mounted and mounts is the text of
// /proc/self/mounts; empty where one may. What waits there to be mounted by whoever looks is not mounted.
QString mountProblem(const QString &point, const QString &destination, const QByteArray &mounts);

// Whether systemd can be given the path: absolute, as it is written without detours, without control characters.
bool isMountPath(const QString &path);

// What a unit has to hold so that systemd mounts that point before it starts it, as far as it knows how.
QByteArray mountDropIn(const QString &point);

} // namespace corv::backup
