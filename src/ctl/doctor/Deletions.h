#pragma once

#include "common/Archives.h"
#include "ctl/doctor/Finding.h"

#include <QList>
#include <QStringList>

namespace corv::ctl {

// What deletions have left that were refused, where accounts holds the names of those that there are and now is a time
// in milliseconds since 1970: what was written to since may be the work of one that goes on.
QList<Finding> checkRefusedDeletions(const QList<DeletionArchives> &archives, const QStringList &accounts, qint64 now);

} // namespace corv::ctl
