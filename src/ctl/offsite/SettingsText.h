#pragma once

#include <QByteArray>
#include <QString>

namespace corv::ctl {

// The text of a settings file with a key of a section set to a value, and all else as it stands, comments included. Of
// several lines with that key the last one counts, and is the one that stays. A section that is not there is added at
// the end. The value must not hold a quotation mark, a backslash or a line feed.
QByteArray withSetting(const QByteArray &text, const QString &section, const QString &key, const QString &value);

} // namespace corv::ctl
