#pragma once

#include <QByteArray>
#include <QFileDevice>
#include <QString>

namespace corv::hosting {

// Modes of the files that the agent writes.
constexpr QFileDevice::Permissions kWorldReadable =
    QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther;

// The name of an account's Apache site, as a2ensite takes it.
QString siteName(const QString &user);

// The path of an account's Apache site file.
QString sitePath(const QString &user);

// The text of an account's Apache site file: with a PHP handler when php is true, or, when suspended, a site that
// answers every request with status 503.
QString vhost(const QString &user, const QString &domain, bool php, bool suspended);

// The text of an account's PHP-FPM pool file.
QByteArray pool(const QString &user);

// The path of an account's pool file under a PHP version such as "8.3".
QString poolPath(const QString &php, const QString &user);

// Where the pool file of a suspended account waits, out of PHP-FPM's sight.
QString parkedPoolPath(const QString &php, const QString &user);

// The page that a new site shows.
QByteArray welcomePage(const QString &domain);

// The highest PHP version under /etc/php that has an FPM pool folder, empty when PHP-FPM is not installed. Read afresh
// on every call, so that an upgrade of PHP needs no restart.
QString phpVersion();

// Whether anything has this path, a link that leads nowhere included.
bool exists(const QString &path);

// Writes a whole file in place, created or truncated, and sets its mode. False when it cannot be opened, was cut short,
// or its mode cannot be set; what was written by then stays.
bool writeFile(const QString &path, const QByteArray &data, QFileDevice::Permissions perms);

// Tests Apache's configuration, then reloads Apache and, unless php is empty, PHP-FPM of that version. Returns the
// first failing command's message; a broken configuration is never loaded.
QString reloadWeb(const QString &php);

} // namespace corv::hosting
