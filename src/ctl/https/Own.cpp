#include "ctl/https/Own.h"

#include "common/AtomicFile.h"
#include "common/Certificate.h"
#include "common/HttpsFiles.h"
#include "common/TimedRun.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QTemporaryDir>
#include <QTimeZone>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;
constexpr qsizetype kLargest = qsizetype{256} * 1024;
// In memory, and root's alone.
constexpr auto kCopies = "/run/corvane/https/brought-XXXXXX";

QByteArray publicKey(const QStringList &words)
{
    const Outcome outcome = runWithin(kToolMs, u"openssl"_s, words);
    return outcome.succeeded ? outcome.output.trimmed() : QByteArray();
}

QString day(qint64 seconds)
{
    return QDateTime::fromSecsSinceEpoch(seconds, QTimeZone::utc()).toString(Qt::ISODate);
}

} // namespace

bool coversName(const QStringList &names, const QString &name)
{
    const qsizetype dot = name.indexOf(u'.');
    return names.contains(name) || (dot > 0 && names.contains(u'*' + name.mid(dot)));
}

Brought readBrought(const QString &certificateFile, const QString &keyFile)
{
    return {certificateFile, keyFile, https::readWhole(certificateFile, kLargest).value_or(QByteArray()),
            https::readWhole(keyFile, kLargest).value_or(QByteArray())};
}

QString checkPair(const Brought &brought, const QStringList &names, qint64 now)
{
    const std::optional<Certificate> certificate = parseCertificate(brought.certificate);
    if (!certificate)
        return u"%1 holds no certificate (PEM)"_s.arg(brought.certificateFile);
    if (now < certificate->begins)
        return u"it is not good before %1"_s.arg(day(certificate->begins));
    if (now >= certificate->ends)
        return u"it was good until %1"_s.arg(day(certificate->ends));
    for (const QString &name : names) {
        if (!coversName(certificate->names, name))
            return u"it is not for %1, but for %2"_s.arg(name, certificate->names.join(u' '));
    }

    const QTemporaryDir copies(QString::fromLatin1(kCopies));
    const QString certificateFile = copies.filePath(u"certificate"_s);
    const QString keyFile = copies.filePath(u"key"_s);
    if (!copies.isValid() || !replaceFile(certificateFile, brought.certificate, 0600) ||
        !replaceFile(keyFile, brought.key, 0600))
        return u"there is no room in %1 to look at it"_s.arg(QLatin1StringView(https::kRunFolder));
    const QByteArray ofCertificate = publicKey({u"x509"_s, u"-in"_s, certificateFile, u"-noout"_s, u"-pubkey"_s});
    // A key with a password could be read by nobody when Apache starts.
    const QByteArray ofKey = publicKey({u"pkey"_s, u"-in"_s, keyFile, u"-pubout"_s, u"-passin"_s, u"pass:"_s});
    if (ofKey.isEmpty())
        return u"%1 holds no key without a password (PEM)"_s.arg(brought.keyFile);
    if (ofCertificate.isEmpty() || ofCertificate != ofKey)
        return u"%1 is not the key of this certificate"_s.arg(brought.keyFile);
    // Browsers refuse it without the answer of its authority, which Apache does not fetch here.
    const QStringList stapling = {u"x509"_s, u"-in"_s, certificateFile, u"-noout"_s, u"-ext"_s, u"tlsfeature"_s};
    if (runWithin(kToolMs, u"openssl"_s, stapling).output.contains("status_request"))
        return u"it asks for stapling (Must-Staple), which is off here"_s;
    return {};
}

bool isTrusted(const Brought &brought)
{
    const QTemporaryDir copies(QString::fromLatin1(kCopies));
    const QString file = copies.filePath(u"certificate"_s);
    return copies.isValid() && replaceFile(file, brought.certificate, 0600) &&
           runWithin(kToolMs, u"openssl"_s, {u"verify"_s, u"-untrusted"_s, file, file}).succeeded;
}

QString checkOwn(const Brought &brought, const QStringList &names, qint64 now)
{
    if (const QString problem = checkPair(brought, names, now); !problem.isEmpty())
        return problem;
    return isTrusted(brought) ? QString() : u"its chain does not lead to an authority that this system trusts"_s;
}

QString keepOwn(const QString &account, const Brought &brought, QString *problem)
{
    // A pair of its own for each content: what Apache reads at that moment never changes.
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(brought.certificate);
    hash.addData(brought.key);
    const QString own = account + u'-' + QString::fromLatin1(hash.result().toHex());
    if (!replaceFile(https::ownKeyPath(own), brought.key, 0600) ||
        !replaceFile(https::ownCertificatePath(own), brought.certificate, 0600)) {
        *problem = u"cannot write into %1"_s.arg(QLatin1StringView(https::kOwnFolder));
        return {};
    }
    return own;
}

} // namespace corv::ctl
