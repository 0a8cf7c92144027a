#pragma once

#include <QByteArray>
#include <QString>

namespace corv::ctl::moving {

// What is done on the old server for an account that has moved: its names are led on. As root; one at a time.

// What came of it.
struct Forwarded
{
    QString problem; // why it could not be; empty where it stands
    QString domain;
    QByteArray token; // part of two paths that the new server was asked for: /.well-known/corv-moved/TOKEN through the
                      // new site, and /.well-known/corv-moved/from/TOKEN past it
    bool onHttps = false; // whether port 443 is led on too
    QString httpsProblem; // why it is not, where the account has a certificate
};

// Leads the names of an account, which is suspended here, on to the server at that address. key: see Forward. Nothing
// changes where it stands so already; another address or key replaces the one that there is.
Forwarded forwardAccount(const QString &account, const QString &address, const QByteArray &key);

// Ends that, whether the account is here or gone. Returns what went wrong, empty also where there was none.
QString endForwarding(const QString &account);

} // namespace corv::ctl::moving
