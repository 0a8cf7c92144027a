#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/doctor/Sites.h"

#include <QByteArray>
#include <QList>
#include <QString>

namespace corv::ctl {

// An account that moved here, and the address from which the old server comes, which leads its visitors on and is
// believed what it tells of their addresses.
struct Believed
{
    QString account;
    QString address; // as inet_ntop writes it
};

// The file in which Apache reads of them, root's alone.
inline const QString kBelievedPath = QStringLiteral("/etc/apache2/conf-available/corv-forwarded.conf");

// Its text.
QByteArray believedText(const QList<Believed> &all, const QByteArray &key);

// Those of a file that has this text to the byte; none of any other text.
QList<Believed> parseBelieved(const QByteArray &text);

// All of this server, by account. Whatever somebody has edited is not told of.
QList<Believed> readBelieved();

// Those that are believed for an account that is gone.
QList<Finding> checkBelieved(const QList<Believed> &all, const QList<AccountSite> &accounts);

} // namespace corv::ctl
