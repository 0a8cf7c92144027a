#pragma once

#include "ctl/doctor/System.h"

#include <QString>

namespace corv::ctl {

// What the switch for automatic security updates sets going.
struct AutomaticState
{
    bool hasPackage = false; // whether unattended-upgrades is installed
    UnitProperties timer;    // of the unit that starts it; empty where systemctl tells nothing
};

// Asks dpkg and systemctl.
AutomaticState readAutomatic();

// Whether the switch is on, as apt itself reads its settings.
bool isAutomatic();

// Why nothing is installed although the switch is on, and the command that mends it: one finding, or none.
QList<Finding> checkAutomatic(const AutomaticState &state);

} // namespace corv::ctl
