#pragma once

#include <functional>

class QProcess;

namespace corv {

// Gives every tool that the agent starts through process a session of its own (so that it can be killed with all that
// it started), no blocked signals, none of the agent's descriptors and the environment of childEnvironment; sees to it
// that one that cannot be executed leaves no descriptor behind either. Call it before the process is started.
void prepareChild(QProcess &process);

// Waits for the end of a process that has been started, at most so many milliseconds. False when it takes longer, and
// when it, or what it started, is seen to be held by the user it runs for, who would hold up everybody for all that
// time (common/Held.h). One that is stopped (SIGSTOP) itself is killed with its group. Where goesOn is given it is
// asked twice a second; once it says no, the wait is over, too.
bool waitForEnd(QProcess &process, int milliseconds, const std::function<bool()> &goesOn = {});

// Kills the process and whatever it started that stayed in its session's first group, and waits for its end.
void killGroup(QProcess &process);

} // namespace corv
