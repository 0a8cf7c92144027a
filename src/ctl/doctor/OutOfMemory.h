#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/doctor/Services.h"

#include <QList>

namespace corv::ctl {

// Which of these services, as readServices gives them, systemd ends for all accounts when the kernel had to end a
// process of one that took too much memory. The others of them run nothing of the accounts'.
QList<Finding> checkOutOfMemory(const QList<Service> &services);

} // namespace corv::ctl
