#pragma once

#include <QByteArray>
#include <QString>

namespace corv::ctl {

struct Options;

namespace moving {

// The old address of an account that has moved here, from the new server, as root: the old one leads its names on, and
// this one believes what it tells of the visitors' addresses.

// What came of it.
struct OldAddress
{
    QString problem;    // why the names are not led on; empty where they are
    QString address;    // to which the old server leads them: this one's, as it sees it
    QString from;       // from which the old server comes, as this one sees it; empty where that was not found out
    QString logProblem; // why visitors that come that way are logged with the old server's address; empty: they are not
    bool onHttps = false;
    QString httpsProblem; // why port 443 is not led on, where the account has a certificate there
};

// Has the old server (host, as ssh takes it) lead the names of the account on to here. The account is suspended over
// there, and its site is on-line here. address: this server's, as the old one is to reach it; empty for the one that
// the old server sees ssh come from. It may be repeated: what stands already stays, what does not is made. Takes some
// seconds.
OldAddress leadOldAddress(const Options &options, const QString &host, const QString &account, const QString &domain,
                          const QString &address = {});

// Ends both. What is on the old server goes first; where that cannot be reached nothing is done here either, so that
// the same call ends the rest later. Returns what went wrong, empty for nothing and where there was no forward.
QString endOldAddress(const Options &options, const QString &host, const QString &account);

// The part of it, for tests: the address at the beginning of the line of an access log that holds the token; empty
// where there is none.
QString addressIn(const QByteArray &log, const QByteArray &token);

} // namespace moving
} // namespace corv::ctl
