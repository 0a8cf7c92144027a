#pragma once

#include "ctl/home/Rights.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// What the web server cannot reach of an account's site.
struct OutOfReach
{
    enum class What {
        Home,    // it cannot go through the home
        Missing, // there is no public_html
        Pages,   // it cannot read public_html
        Below    // it cannot read some of what is in it
    };

    QString account;
    What what;
    int count = 0;    // Below: how many files and folders, as far as they were looked at
    QByteArray first; // Below: the path in the home of the first of them
};

// Looks at these accounts' homes with the web server's rights, as far as 20000 entries in all, 2000 of one account, and
// two seconds go. A file or folder that not even a group may read is meant to be private, and none of these; one that a
// group may read, but not the web server's, has lost that group. A link to a public_html elsewhere is left alone.
QList<OutOfReach> findOutOfReach(const QStringList &accounts, const QString &homes = QStringLiteral("/home"));

// Gives an account's home and public_html to the web server's group, with the modes of a creation, and so what is below
// that a group may read but the web server cannot; folders there get the set-group-ID bit. Works with the account's
// rights. Returns why it could not, empty when it could; count gets the number of what was changed below public_html.
QString openToWebServer(const Rights &rights, const QByteArray &home, int *count);

// The parts of it, for tests: what is done in the processes that have the rights.
QByteArray lookHere(const QStringList &accounts, const QString &homes);
QByteArray openHere(const QByteArray &home, gid_t webGroup);

} // namespace corv::ctl
