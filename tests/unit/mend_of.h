#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/screen/Escape.h"

// The command of a finding; told from any that a test expects where a screen shows it otherwise than it has to be
// typed.
inline QString mendOf(const corv::ctl::Finding &finding)
{
    if (corv::ctl::escaped(finding.mend) == finding.mend)
        return finding.mend;
    return QStringLiteral("cannot be typed as it is shown: ") + finding.mend;
}
