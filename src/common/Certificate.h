#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv {

// What a certificate says of itself. None of it is proved: it is for telling how long one is good, and for whom.
struct Certificate
{
    qint64 begins = 0; // seconds since the epoch
    qint64 ends = 0;
    QStringList names; // the DNS names that it is for, in its order
    QString issuer;    // the common name of who issued it, or the organisation's where there is none
};

// The first certificate in a PEM text; nothing where there is none that can be read.
std::optional<Certificate> parseCertificate(const QByteArray &pem);

} // namespace corv
