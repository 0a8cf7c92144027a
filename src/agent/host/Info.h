#pragma once

#include "agent/Reply.h"

namespace corv {

// system.info: hostname, os (the release's pretty name), kernel, cpus and uptimeSeconds (whole seconds, from
// /proc/uptime). What cannot be read is 0 or empty; never fails.
Reply systemInfo(const QJsonObject &args);

} // namespace corv
