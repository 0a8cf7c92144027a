#pragma once

#include <QByteArray>
#include <QString>

namespace corv {

// The text of bytes as the panel gets it; a byte-order mark stays.
QString shown(const QByteArray &bytes);

} // namespace corv
