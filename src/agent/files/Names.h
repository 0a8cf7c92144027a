#pragma once

#include <QByteArray>
#include <QString>

namespace corv::files {

// File names are bytes, the panel's are text. A name that is not valid UTF-8 is shown with a replacement character for
// what is not, and can be used as it is shown as long as only one entry of its folder looks like that.

// The path as the file system knows it: that of the entries that are shown like this, where there are such, else the
// text in UTF-8.
QByteArray storedPath(const QString &path);

} // namespace corv::files
