#pragma once

#include <QByteArray>
#include <QString>

#include <functional>
#include <optional>

#include <sys/types.h>

namespace corv {

// The processes that this one has begun and whose end it has not seen, by the kernel's own list.
QList<pid_t> children();

// Waits at most so many milliseconds for a child's end: its status, or nothing where that does not come in time. One
// that waits for a disk or a share that does not answer does not even end when it is killed.
std::optional<int> endOf(pid_t child, int milliseconds);

// Does work in a process of its own, so that what hangs, dies or takes too much of memory in it does so alone: gives
// what the work gave, at most 16 MiB of it; nothing where it took longer than so many milliseconds or ended otherwise.
// It is killed then. One that is stuck stays a child of this process, and nothing more is begun beside four of them. It
// has nothing open of what this one has, for it would hold connections, locks and whoever reads the output for as long.
// This and the next are to be called where no other child runs.
std::optional<QByteArray> workApart(int milliseconds, const std::function<QByteArray()> &work);

// How many such processes are still stuck, of those whose work was given up.
qsizetype stuckWork();

// Whether the file system that a path is on says anything at all, be it that there is no such path, within 5 s. A share
// whose server is gone holds up whoever asks it, for as long as that may take.
bool isAnswering(const QString &path);

} // namespace corv
