#pragma once

#include <QString>

namespace corv::ctl {

// The package in which some members of the Debian family keep the quota module of the running kernel, and which
// enabling quotas installs.
QString modulesPackage();

// Whether it is installed, or apt knows it. Changes nothing, apt's caches included.
bool canHaveModulesPackage();

// Whether the running kernel has the module quota_v2 without it, built in or beside its other modules.
bool kernelHasQuotas();

} // namespace corv::ctl
