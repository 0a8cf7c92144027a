#include "ctl/move/TwinCertificate.h"

#include "common/HttpsFiles.h"
#include "common/TimedRun.h"

#include <QFile>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kToolMs = 30'000;
const auto kAuthorities = u"/etc/ssl/certs/ca-certificates.crt"_s;

QByteArray publicKeyOf(const QStringList &words)
{
    const Outcome outcome = runWithin(kToolMs, u"openssl"_s, words);
    return outcome.succeeded ? outcome.output.trimmed() : QByteArray();
}

bool areOneAnothers(const TwinCertificate &twin)
{
    const QByteArray ofCertificate = publicKeyOf({u"x509"_s, u"-noout"_s, u"-pubkey"_s, u"-in"_s, twin.file});
    return !ofCertificate.isEmpty() && ofCertificate == publicKeyOf({u"pkey"_s, u"-pubout"_s, u"-in"_s, twin.key});
}

bool isVouchedFor(const QString &certificate)
{
    return runWithin(kToolMs, u"openssl"_s,
                     {u"verify"_s, u"-CAfile"_s, kAuthorities, u"-untrusted"_s, certificate, certificate})
        .succeeded;
}

// Where it may lie, the likeliest first.
QList<TwinCertificate> placesOf(const QString &account, const QString &domain)
{
    const QString own = https::readOptions(account).value_or(https::SiteOptions()).own;
    if (!own.isEmpty())
        return {{https::ownCertificatePath(own), https::ownKeyPath(own), {}}};
    QList<TwinCertificate> places;
    const QString folder = https::storeFolder(domain);
    for (const QString &kind : {u".p-256"_s, u".secp256r1"_s, QString()})
        places.append({u"%1/pubcert%2.pem"_s.arg(folder, kind), u"%1/privkey%2.pem"_s.arg(folder, kind), {}});
    return places;
}

} // namespace

TwinCertificate findTwinCertificate(const QString &account, const QString &domain)
{
    TwinCertificate none;
    for (const TwinCertificate &place : placesOf(account, domain)) {
        if (!QFile::exists(place.file) || !QFile::exists(place.key))
            continue;
        if (!areOneAnothers(place))
            none.problem = u"the key of %1 is another one's"_s.arg(place.file);
        else if (!isVouchedFor(place.file))
            none.problem = u"no authority that this server knows vouches for %1"_s.arg(place.file);
        else
            return place;
    }
    return none;
}

} // namespace corv::ctl::moving
