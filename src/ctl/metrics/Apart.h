#pragma once

#include <QByteArray>

#include <functional>
#include <optional>

namespace corv::ctl {

// Does work in a process of its own, so that what hangs, dies or takes too much of memory in it does so alone: gives
// what the work gave, at most 16 MiB of it, nothing where it took longer than so many milliseconds or ended otherwise.
// Whatever it started and left is killed. Not for a process with children of other kinds: it takes them for its own.
std::optional<QByteArray> workApart(int milliseconds, const std::function<QByteArray()> &work);

} // namespace corv::ctl
