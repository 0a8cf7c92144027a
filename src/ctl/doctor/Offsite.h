#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/offsite/Place.h"
#include "ctl/offsite/State.h"

#include <QList>

namespace corv::ctl {

// What is wrong with the copies off-site, by what is kept of the last ones. hasRestic says whether restic is installed,
// isPlanned whether the daily checks are; now is the time in seconds since 1970.
QList<Finding> checkOffsite(const OffsitePlace &place, const OffsiteState &state, bool hasRestic, bool isPlanned,
                            qint64 now);

// Why the newest copy is too old, as a sentence; empty where it is not. Status tells it too.
QString lateCopy(const OffsiteState &state, qint64 now);

} // namespace corv::ctl
