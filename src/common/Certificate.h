#pragma once

#include <QByteArray>
#include <QStringList>

#include <optional>

namespace corv {

// What a certificate says of itself. None of it is proved: it is for telling how long one is good, and for whom.
struct Certificate
{
    qint64 begins = 0; // seconds since the epoch
    qint64 ends = 0;
    QStringList names; // the DNS names that it is for, in its order, in small letters; what is none is left out
};

// The first certificate in a PEM text; nothing where there is none that can be read.
std::optional<Certificate> parseCertificate(const QByteArray &pem);

} // namespace corv
