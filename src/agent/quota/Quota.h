#pragma once

#include "agent/Reply.h"

namespace corv::quota {

// quota.status: the file system that holds /home (mount, fsType), whether quotas can be switched on there by
// quota.enable (supported, else reason says why not) and whether they are on (enabled). Never fails. args is not read.
Reply status(const QJsonObject &args);

// quota.enable: installs what quotas need, adds their options to the line of /home's file system in /etc/fstab (a dated
// copy of the old file stays beside it), remounts it and switches user quotas on; already is true when they were on
// before. When that fails after the change, the old /etc/fstab is put back. args is not read.
Reply enable(const QJsonObject &args);

// quota.set: limits the account username to mb MiB on /home's file system, 0 for no limit.
Reply set(const QJsonObject &args);

} // namespace corv::quota
