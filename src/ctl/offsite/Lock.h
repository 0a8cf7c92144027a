#pragma once

#include "common/Fd.h"

#include <QString>

namespace corv::ctl {

// Held by whoever works with the place, so that what one leaves half done is nobody else's work that goes on. Waits for
// another one. None, with the reason in problem, where that was interrupted or cannot be.
Fd lockOffsite(QString *problem);

} // namespace corv::ctl
