#pragma once

#include "common/Fd.h"

#include <QString>

namespace corv::ctl {

// Held by whoever works with the place, so that what one leaves half done is nobody else's work that goes on.
// Waits for another one where asked to; else it is none, with the reason in problem. Interrupted waiting is none too.
Fd lockOffsite(bool waits, QString *problem);

} // namespace corv::ctl
