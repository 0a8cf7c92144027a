#pragma once

#include <QByteArray>

#include <functional>
#include <optional>

namespace corv::ctl {

// Does work that may start programs in a process of its own (see corv::workApart), and kills whatever it started and
// left. Not for a process with children of other kinds: it takes them for its own.
std::optional<QByteArray> workWithProgramsApart(int milliseconds, const std::function<QByteArray()> &work);

} // namespace corv::ctl
