#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/doctor/Sites.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

namespace corv::ctl {

// An account that has moved to another server, and whose names are still led here: a site that comes before the
// account's own, which is suspended, and hands each request on.
struct Forward
{
    QString account;
    QString domain;         // the site answers to it and to its www. form
    QString address;        // the new server's, as inet_ntop writes it
    QByteArray key;         // what the visitor's address is told with, 32 hexadecimal digits
    QString certificate;    // what it answers with on port 443, and
    QString certificateKey; // its key; both empty where there is no HTTPS
};

// The name of its site, as a2dissite takes it. It sorts behind Debian's own "000-default", which would else lose the
// names that nobody has, and before all that is an account's.
QString forwardSite(const QString &account);

// The paths of the site's file, and of the link that enables it.
QString forwardPath(const QString &account);
QString enabledForwardPath(const QString &account);

// The account that a site of that name forwards; empty for any other site.
QString accountForwardedBy(const QString &site);

// The header in which the visitor's address is told.
QByteArray clientHeader(const QByteArray &key);

// Whether a text is a key; and an address that is written as inet_ntop writes it.
bool isForwardKey(const QByteArray &text);
bool isPlainAddress(const QString &text);

// The path, below the site's names, that the site itself answers with status 204, and no other text of it does.
QByteArray forwardMark(const Forward &forward);

// The text of the site's file. Each member has been checked.
QByteArray forwardText(const Forward &forward);

// The forward whose file has that text, to the byte; nothing for any other text.
std::optional<Forward> parseForward(const QString &account, const QByteArray &text);

// The enabled ones of this server, by account, as far as the files may be read, which are root's alone. One that
// somebody has edited has its account alone.
QList<Forward> readForwards();

// Those of the virtual hosts that are no forward's.
QList<VirtualHost> withoutForwards(QList<VirtualHost> hosts);

// What is wrong with them: those of accounts that are gone, or not suspended, or have another domain by now, and those
// whose names an account has that is on-line.
QList<Finding> checkForwards(const QList<Forward> &forwards, const QList<AccountSite> &accounts);

} // namespace corv::ctl
