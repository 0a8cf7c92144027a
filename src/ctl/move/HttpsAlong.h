#pragma once

#include "common/Certificate.h"
#include "common/HttpsOptions.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace corv::ctl::moving {

// What an account has on port 443 of the server that it comes from.
struct HttpsThere
{
    bool isOn = false;                           // that server has HTTPS for its accounts
    std::optional<https::SiteOptions> options;   // what was chosen for this one; nothing where it cannot be read
    std::optional<Certificate> certificate = {}; // the one that its site is served with
};

// Asks the server host for it; the key stays there. Both names have been checked. Returns why it cannot be asked, empty
// when *https has the answer.
QString lookAtHttpsThere(const QString &host, const QString &account, const QString &domain, HttpsThere *https);

// Whether this server has HTTPS for its accounts.
bool isHttpsOnHere();

// Brings what was chosen for the account, and its certificate with the key, to where this server's HTTPS looks for
// them, so that it is served with them before its names lead here. told gets what is worth knowing of a certificate
// that came. Returns what did not come and why, empty when all did that there is. Both names have been checked.
QString bringHttps(const QString &host, const QString &account, const QString &domain, QString *told);

// Why visitors of the account's site here do not get the certificate that is here for it; empty where they do, and
// where there is none. Waits for it some seconds: Apache takes a moment to read it.
QString httpsProblemHere(const QString &account, const QString &domain);

// The parts of it, for tests. What the first question's answer tells.
HttpsThere parseHttpsThere(const QByteArray &output);

// The first block of that kind in a PEM text, without its line ends; empty where there is none.
QByteArray firstBlock(const QByteArray &pem, const QByteArray &kind);

} // namespace corv::ctl::moving
