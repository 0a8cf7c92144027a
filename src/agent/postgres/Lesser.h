#pragma once

#include "common/Fd.h"

#include <QByteArray>

#include <functional>

#include <sys/types.h>

namespace corv {

// A process of the agent's own that has given up its rights. It does one thing, reports on it, and ends with the agent
// at the latest.
struct Lesser
{
    pid_t id = -1;
    Fd report; // what it writes comes here
};

// Starts one, as good as running under a user: files and sockets take it for that user, while nobody but root may
// signal or trace it. It has no capability, and no descriptor of the agent's but kept (-1: none). work is given the
// descriptor that it reports to; with its return the process ends. After so many seconds it is killed.
// Returns a process without an id when it cannot be started or there is no such user.
Lesser startLesser(const QByteArray &user, int kept, unsigned seconds, const std::function<void(int report)> &work);

// For the process itself: gives up the user too, for good. False when that fails.
bool leaveUser();

// What the process has reported by its end, or until so many milliseconds are over: at most so many bytes. Then it is
// killed, where it has not ended, and gone.
QByteArray endOf(Lesser &process, int milliseconds, qsizetype maxBytes);

// Whether it has reported anything that was not read.
bool hasReported(const Lesser &process);

} // namespace corv
