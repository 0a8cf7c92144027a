#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace corv::hosting {

// The text of an account's PHP-FPM pool file.
QByteArray pool(const QString &user);

// The path of an account's pool file under a PHP version such as "8.3".
QString poolPath(const QString &php, const QString &user);

// Where the pool file of a suspended account waits, out of PHP-FPM's sight.
QString parkedPoolPath(const QString &php, const QString &user);

// The PHP versions under /etc/php that have an FPM pool folder, in no order.
QStringList phpVersions();

// The highest PHP version under /etc/php that has an FPM pool folder, empty when PHP-FPM is not installed. Read afresh
// on every call, so that an upgrade of PHP needs no restart.
QString phpVersion();

} // namespace corv::hosting
