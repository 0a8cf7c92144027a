#pragma once

#include <QList>
#include <QString>

#include <sys/types.h>

namespace corv::hosting {

// One entry of the system's user database.
struct User
{
    QString name;
    uid_t uid;
    QString comment; // the GECOS field
    QString home;
};

// Every entry, in the database's order; the database is read once.
QList<User> users();

// Whether a comment is that of an account of this panel: it begins with the account marker. The user database is the
// only record of accounts.
bool hasMarker(const QString &comment);

// The comment of an account's user: the marker, a comma and the domain.
QString accountComment(const QString &domain);

// The domain in a user's comment: what stands between its first and second comma, empty without a comma.
QString domainIn(const QString &comment);

// The domain of a user, as domainIn; empty when there is no such user. The user may have changed it.
QString domainOf(const QString &user);

// "/home/" and the account's name.
QString homePath(const QString &user);

// Whether u may name an account: 3 to 16 lower-case letters and digits, a letter first, and none of the reserved names.
bool validUsername(const QString &u);

// The domain name in d, trimmed, in lower case and without one leading "www."; empty when it is not a domain name.
QString normalDomain(const QString &d);

// Whether creation stores this domain for some input: one that begins with "www." is stored where two of these were
// given.
bool isStoredDomain(const QString &domain);

// Whether username is a user of this system with the account marker.
bool isOurs(const QString &username);

// Whether text is one SSH public key line of a known type, with at most 200 printable characters of comment.
bool validKey(const QString &text);

} // namespace corv::hosting
