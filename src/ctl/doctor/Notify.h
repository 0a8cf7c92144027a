#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/notify/Failures.h"
#include "ctl/notify/Notify.h"

#include <QJsonObject>

namespace corv::ctl {

// What failed and has not succeeded since, and ways of telling it that cannot work. backups is the reply of
// backup.status: a run that failed and left a backup has its errors told with it. now is the time in seconds since
// 1970.
QList<Finding> checkNotify(const Ways &ways, const QList<Missing> &missing, const QList<Failed> &failed,
                           const QJsonObject &backups, qint64 now);

} // namespace corv::ctl
