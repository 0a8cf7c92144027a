#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// What is done with the FPM of one PHP version.

// Whether its service runs.
bool isFpmRunning(const QString &version);

// Whether its service has ended by itself: not one that somebody has stopped.
bool hasFpmFailed(const QString &version);

// Has it read its configuration anew, or starts it where it does not run. Returns why that failed, empty on success. It
// returns before the reading is done.
QString reloadFpm(const QString &version);

// Asks for such a reading, or for its end, without waiting for the least of it.
QString askForReload(const QString &version);
QString askForStop(const QString &version);

// Has its service forget that it failed, without which one that failed some times in a row does not start. Returns as
// above.
QString forgetFailures(const QString &version);

// Stops it; and keeps it from being started with the server, or has it started again.
QString stopFpm(const QString &version);
QString enableFpm(const QString &version, bool isEnabled);

// Whether it would start with these pools (their texts by the accounts' names) beside those that it has. Returns what
// it says against that, empty for nothing.
QString testFpm(const QString &version, const QHash<QString, QByteArray> &pools);

// The modules of one version that another has not, in lower case. Empty where one of them cannot be asked.
QStringList missingModules(const QString &from, const QString &to);

// Those of the accounts on whose socket this version's FPM listens.
QStringList servedBy(const QString &version, const QStringList &accounts);

} // namespace corv::ctl
