#pragma once

#include <QJsonArray>
#include <QString>

namespace corv::backup {

// The finished backups in the destination, newest first: the members of each one's manifest (as much as could be read),
// its name, and the bytes of its files. Empty where the destination cannot be read.
QJsonArray listBackups(const QString &destination);

} // namespace corv::backup
