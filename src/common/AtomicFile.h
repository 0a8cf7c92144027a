#pragma once

#include <QByteArray>
#include <QString>

#include <sys/types.h>

namespace corv {

// Replaces a whole file, or makes it, so that whoever reads it finds the old content or the new one and nothing
// between, also after a power cut: the content goes to a hidden temporary file in the same folder, reaches the disk,
// and is renamed. Owner, group and mode of a file that is replaced stay; a new one belongs to this process and has
// exactly modeWhenNew. A link is followed, so that a file that is kept elsewhere stays there. The folder must be
// writable to root alone.
//
// False on any failure, a path of something other than a file included; the old file is then as it was and the
// temporary one is gone.
bool replaceFile(const QString &path, const QByteArray &data, mode_t modeWhenNew);

} // namespace corv
