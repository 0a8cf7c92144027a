#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/home/Reach.h"

#include <QList>

namespace corv::ctl {

// What the web server cannot reach of accounts' sites, as faults.
QList<Finding> checkReach(const QList<OutOfReach> &found);

} // namespace corv::ctl
