#pragma once

#include <sys/types.h>

namespace corv::hosting {

// Ends every process that an account's user id has, also those that ignore signals which can be ignored, and waits
// until they are gone, a few seconds at most. Processes that start meanwhile end too. Does nothing for an id that
// cannot be an account's.
//
// The kernel knows no other user of that number: those of a container that has no users of its own end with them. Only
// passes over whatever has another root folder, for an id that is nobody's yet.
enum class InOwnRoot { Only, Any };
void endProcesses(uid_t user, InOwnRoot which = InOwnRoot::Any);

// Whether the text of a process's status in /proc is that of a living one which a signal from the user would reach.
bool isLivingProcessOf(uid_t user, const char *status);

} // namespace corv::hosting
