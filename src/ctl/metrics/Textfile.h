#pragma once

#include <QByteArray>
#include <QString>

namespace corv::ctl {

// Writes a file for a collector that reads all files of a folder at any time: under a hidden name in the same folder
// first, readable to all, which then takes the place of what has that name, a link itself and not what it leads to.
// Others may own folders on the way (prometheus owns its own), so none of them may be a link. path is absolute.
// Returns why it cannot be written, with nothing left behind; empty on success.
QString writeTextfile(const QString &path, const QByteArray &text);

} // namespace corv::ctl
