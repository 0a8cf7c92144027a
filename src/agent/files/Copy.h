#pragma once

#include <QtGlobal>

#include <optional>

namespace corv::files {

// Copies what source still holds, to its end, to target. Returns the number of bytes, at most limit + 1, where it
// stops; nothing, with errno set, when it cannot. Either may be any kind of file.
std::optional<qint64> copyAll(int source, int target, qint64 limit);

} // namespace corv::files
