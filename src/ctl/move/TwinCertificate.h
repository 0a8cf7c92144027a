#pragma once

#include <QByteArray>
#include <QString>

namespace corv::ctl::moving {

// The certificate that an account's site is served with on port 443 of this server, for a site in its place.
struct TwinCertificate
{
    QString file; // with its chain; empty where there is none that can be used
    QString key;
    QString problem; // why there is none, although the account has one
};

// Looks for it where this system's HTTPS keeps certificates. Taken is one whose key belongs to it, since Apache ends
// with any other, and that this server's authorities vouch for: by them the new server is known, which has the same.
TwinCertificate findTwinCertificate(const QString &account, const QString &domain);

} // namespace corv::ctl::moving
