#pragma once

#include <QString>
#include <QStringList>

namespace corv {

// Whether a Debian package is installed, with nothing left undone, as dpkg-query tells it.
bool installed(const QString &package);

// Installs packages, in this order and in one go, through apt-get. Returns an empty text on success, else the message
// of hosting::run.
QString aptInstall(const QStringList &packages);

} // namespace corv
