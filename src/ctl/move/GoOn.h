#pragma once

#include "ctl/move/Journal.h"

#include <QString>

namespace corv::ctl::moving {

// Has the system ask again, a moment from now, which of the two servers has an account, and do what is left to do on
// the one that has it: for a move that is killed within the switch, so that nobody has to come for it. It never begins
// a switch. What cannot be had of it is left to whoever gives the same command.
void beginWatch(const Record &record);

// Ends that, for a move of which nothing is left open.
void endWatch(const QString &account);

} // namespace corv::ctl::moving
