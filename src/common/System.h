#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QStringList>

class QSettings;

namespace corv::system {

// The services that the panel watches and may restart, from the settings key health/services: trimmed, in order,
// without empty entries, duplicates kept. "apache2" and "postgresql" where the key is absent.
QStringList monitoredServices(const QSettings &settings);

// Whether a mounted file system holds files on a disk: it is neither kept in memory, nor a packed or composed image,
// nor a desktop's, nor below /snap or /run. type as the mount table has it, bytes is its size.
bool isOnDisk(const QString &type, const QString &mount, qint64 bytes);

// One object for each mounted file system that holds real files, from the mount table in its order: mount, device,
// type, and total and avail in bytes. While one does not answer within 2 s, those of the server's own devices alone.
// Asks in a process of its own, which stays as long as it is held up; to be called where no other child runs.
QJsonArray disks();

// One object for each of the services, in their order: name, loaded, active, sub, since (seconds since the epoch,
// absent for a unit that was never active) and memory (bytes, 0 where unknown). Asks systemctl for at most 5 s; what it
// has not told by then is missing, and without it the array is empty.
QJsonArray serviceStatus(const QStringList &services);

// The same from the output of `systemctl show`: one block of NAME=VALUE lines for each service, blocks parted by empty
// lines. Names come from services by position.
QJsonArray parseServices(const QByteArray &output, const QStringList &services);

} // namespace corv::system
