#pragma once

#include <QByteArray>
#include <QJsonArray>

#include <functional>
#include <optional>

#include <sys/types.h>

namespace corv::ctl {

// Does work that may start programs in a process of its own (see corv::workApart), and kills whatever it started and
// left. Not for a process with children of other kinds: it takes them for its own.
std::optional<QByteArray> workWithProgramsApart(int milliseconds, const std::function<QByteArray()> &work);

// What did not end even so, for it waits for a disk or a share that does not answer: the children of this process, an
// object each with "pid" and "began", by which a later run knows it. Empty where nothing did.
QJsonArray unendedChildren();

// The id of the first of such processes that is still there; nothing where none is.
std::optional<pid_t> firstUnended(const QJsonArray &processes);

} // namespace corv::ctl
