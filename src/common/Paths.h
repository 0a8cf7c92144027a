#pragma once

#include <QString>

namespace corv {

// Whether anything has this path, a link that leads nowhere included.
bool exists(const QString &path);

} // namespace corv
