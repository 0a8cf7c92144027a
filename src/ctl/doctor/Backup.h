#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/verify/Verdict.h"

#include <QHash>
#include <QJsonObject>
#include <QString>

#include <optional>

namespace corv::ctl {

// What the reply of backup.status says of the last backup, where now is the time in seconds since 1970 and timerActive
// says whether the nightly runs are planned.
QList<Finding> checkBackups(const QJsonObject &status, qint64 now, bool timerActive);

// What was found out of the last backup, where status is the reply of backup.status and verdict what there is of it.
QList<Finding> checkVerdict(const QJsonObject &status, const std::optional<Verdict> &verdict, qint64 now);

// What tar and gzip pack in a second on a slow machine.
constexpr qint64 kCautiousBytesPerSecond = 20'000'000;

// What stands beside the backups and is off: the weekly proof, and what writes down what no archive of a deletion
// holds.
QList<Finding> checkBesideBackups(bool proofPlanned, bool deletionsWatched);

// Homes that no run can archive within the agent's ten minutes, or that come near that, where so many bytes are packed
// in a second. sizes holds the bytes of each account's home, and status is the reply of backup.status: a home that the
// last run saved in time is not too large.
QList<Finding> checkHomes(const QHash<QString, qint64> &sizes, const QJsonObject &status,
                          qint64 bytesPerSecond = kCautiousBytesPerSecond);

// How much of a home can be archived within the agent's ten minutes at that speed, as "11.2 GiB".
QString largestHome(qint64 bytesPerSecond);

// Whether a home is so large that it matters how many bytes are packed in a second.
bool isNearLimit(const QHash<QString, qint64> &sizes);

} // namespace corv::ctl
