#pragma once

#include <QString>

namespace corv::files {

// What a file of the transfer directory is to whoever puts it there, takes it away, or checks it.

// The directory.
constexpr auto kTransferFolder = "/var/lib/corvane/transfer";

// The most bytes of one upload or download: 256 MiB.
constexpr qint64 kMaxTransfer = 268'435'456;

// Whether name may name a file of the transfer directory: 16 to 64 letters, digits, underscores or hyphens.
bool validTransferName(const QString &name);

} // namespace corv::files
