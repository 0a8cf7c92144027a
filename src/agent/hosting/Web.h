#pragma once

#include <QByteArray>
#include <QFileDevice>
#include <QString>

namespace corv::hosting {

// Modes of the files that the agent writes.
constexpr QFileDevice::Permissions kWorldReadable =
    QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther;

// Writes a whole file in place, created or truncated, and sets its mode. False when it cannot be opened, was cut short,
// or its mode cannot be set; what was written by then stays.
bool writeFile(const QString &path, const QByteArray &data, QFileDevice::Permissions perms);

// Tests Apache's configuration, then reloads Apache and, unless php is empty, PHP-FPM of that version. Returns the
// first failing command's message; a broken configuration is never loaded.
QString reloadWeb(const QString &php);

} // namespace corv::hosting
