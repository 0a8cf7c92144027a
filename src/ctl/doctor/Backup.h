#pragma once

#include "ctl/doctor/Finding.h"

#include <QHash>
#include <QJsonObject>
#include <QString>

namespace corv::ctl {

// What the reply of backup.status says of the last backup, where now is the time in seconds since 1970 and timerActive
// says whether the nightly runs are planned.
QList<Finding> checkBackups(const QJsonObject &status, qint64 now, bool timerActive);

// Homes that no run can archive within the agent's ten minutes. sizes holds the bytes of each account's home, and
// status is the reply of backup.status: a home that the last run saved in time is not too large.
QList<Finding> checkHomes(const QHash<QString, qint64> &sizes, const QJsonObject &status);

// When a backup began, in seconds since 1970, by its name in local time; 0 for what is no such name.
qint64 backupTime(const QString &name);

} // namespace corv::ctl
