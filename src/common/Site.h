#pragma once

#include <QByteArray>
#include <QString>

namespace corv::hosting {

// The longest domain whose logs logrotate can rotate, in characters: no file's name has more than 255 bytes, and each
// rotation adds to "DOMAIN-access.log", up to ".14.gz" by Debian's settings. A log that cannot be renamed keeps all of
// Apache's from being rotated; where its own name is too long, Apache does not even come up.
constexpr qsizetype kLongestRotatedDomain = 238;

// The name of an account's Apache site, as a2ensite takes it.
QString siteName(const QString &user);

// The path of an account's Apache site file.
QString sitePath(const QString &user);

// The text of an account's Apache site file: with a PHP handler when php is true, or, when suspended, a site that
// answers every request with status 503.
QString vhost(const QString &user, const QString &domain, bool php, bool suspended);

// What each page of a suspended site says.
constexpr QLatin1StringView kSuspendedPage("This site is temporarily unavailable.");

// The page that a new site shows.
QByteArray welcomePage(const QString &domain);

} // namespace corv::hosting
