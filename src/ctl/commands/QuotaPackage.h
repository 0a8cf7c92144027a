#pragma once

#include <QString>

namespace corv::ctl {

// What stood in the way of switching quotas on, and was done about it.
struct Prepared
{
    QString made;    // the package that was made and installed; empty where none was needed
    QString problem; // why that did not work; empty where it did
};

// Enabling quotas installs a package with the kernel's quota module, which Debian has not, since its kernels bring the
// module themselves. Where that is so, makes an empty package of that name and installs it: in a folder of root's own,
// with nothing fetched. Does nothing where quotas are on, cannot be had, or the package can.
Prepared prepareQuotas();

} // namespace corv::ctl
