#pragma once

#include <sys/types.h>

namespace corv {

// Whether a process, or one that it or its children started, makes no headway because the user it runs for holds it:
// stopped (SIGSTOP), traced by somebody else than root, or at a FIFO of the file system, which no tool of ours is given
// to open. Root's own processes are out of a user's reach, so they are not looked at. Reads /proc alone; what cannot be
// found out there counts as not held.
bool isHeld(pid_t process);

} // namespace corv
