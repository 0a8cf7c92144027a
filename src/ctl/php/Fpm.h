#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// What is done with the FPM of one PHP version.

// Whether its service runs.
bool isFpmRunning(const QString &version);

// Has it read its configuration anew, or starts it where it does not run. Returns why that failed, empty on success. It
// returns before the reading is done.
QString reloadFpm(const QString &version);

// Stops it; and keeps it from being started with the server, or has it started again.
QString stopFpm(const QString &version);
QString enableFpm(const QString &version, bool isEnabled);

// Whether it would start with these pools (their texts by the accounts' names) beside those that it has. Returns what
// it says against that, empty for nothing.
QString testFpm(const QString &version, const QHash<QString, QByteArray> &pools);

// The modules of one version that another has not, in lower case. Empty where one of them cannot be asked.
QStringList missingModules(const QString &from, const QString &to);

// The accounts that have a socket.
QStringList accountsWithSocket();

// Those of the accounts on whose socket this version's FPM listens.
QStringList servedBy(const QString &version, const QStringList &accounts);

// Waits until nobody listens on any of these accounts' sockets any more, or until somebody listens on all of them:
// seconds at most. Returns the accounts for which that has not come.
QStringList awaitReleased(const QStringList &accounts, int seconds);
QStringList awaitListening(const QStringList &accounts, int seconds);

} // namespace corv::ctl
