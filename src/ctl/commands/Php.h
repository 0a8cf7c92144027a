#pragma once

#include "ctl/Command.h"

namespace corv::ctl {

struct Session;

// "php move", which has a file of its own.
int phpMove(Session &session, const Given &given);

} // namespace corv::ctl
