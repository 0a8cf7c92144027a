#pragma once

#include <sys/types.h>

namespace corv::hosting {

// Ends every process that an account's user id has, also those that ignore signals which can be ignored, and waits
// until they are gone, a few seconds at most. Processes that start meanwhile end too. Does nothing for an id that
// cannot be an account's.
void endProcesses(uid_t user);

// Whether the text of a process's status in /proc is that of a living one which a signal from the user would reach.
bool isLivingProcessOf(uid_t user, const char *status);

} // namespace corv::hosting
