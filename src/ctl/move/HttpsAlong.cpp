#include "ctl/move/HttpsAlong.h"

#include "common/Account.h"
#include "common/AtomicFile.h"
#include "common/HttpsFiles.h"
#include "common/Paths.h"
#include "common/TimedRun.h"
#include "ctl/https/Apache.h"
#include "ctl/https/Own.h"
#include "ctl/remote/Remote.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QFile>
#include <QStringList>
#include <QThread>

#include <cerrno>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kAskSeconds = 60;
constexpr qsizetype kLargest = qsizetype{512} * 1024;
constexpr int kVisitMs = 5'000;
constexpr int kWaitMs = 10'000;
constexpr int kBetweenMs = 250;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;
const auto kOn = "on"_ba;
const auto kCertificate = "CERTIFICATE"_ba;

// A certificate and its key, on whichever server: they lie in the same places on both.
struct Pair
{
    QString certificate;
    QString key;
};

Pair pairOf(const QString &domain, const https::SiteOptions &options)
{
    if (!options.own.isEmpty())
        return {https::ownCertificatePath(options.own), https::ownKeyPath(options.own)};
    const QString folder = https::storeFolder(domain);
    return {folder + u"/pubcert.p-256.pem"_s, folder + u"/privkey.p-256.pem"_s};
}

// What a command over there prints. The end of a connection is told by the status, so the words have to end well.
QString readThere(const QString &host, const QStringList &command, QByteArray *output)
{
    Remote remote;
    if (const QString problem = remote.start(host, command); !problem.isEmpty())
        return problem;
    remote.finishWriting();
    const std::optional<QByteArray> text = remote.readAll(kAskSeconds, kLargest);
    if (!text)
        return u"%1: no answer within %2 s"_s.arg(host).arg(kAskSeconds);
    if (remote.wait() != 0)
        return remote.explain();
    *output = *text;
    return {};
}

// The words for the shell there, of the account's name, its domain and what parseOptions takes: nothing in them that it
// would not take as it stands.
QStringList choicesCommand(const QString &account)
{
    return {u"if"_s,
            u"test"_s,
            u"-e"_s,
            QString::fromLatin1(https::kEnabledSite),
            u";"_s,
            u"then"_s,
            u"echo"_s,
            u"on;"_s,
            u"fi;"_s,
            u"if"_s,
            u"test"_s,
            u"-e"_s,
            https::optionsPath(account),
            u";"_s,
            u"then"_s,
            u"cat"_s,
            https::optionsPath(account),
            u";"_s,
            u"fi"_s};
}

QStringList certificateCommand(const Pair &pair)
{
    return {u"if"_s,   u"test"_s, u"-e"_s,          pair.certificate, u";"_s,
            u"then"_s, u"cat"_s,  pair.certificate, u";"_s,           u"fi"_s};
}

QStringList pairCommand(const Pair &pair)
{
    return {u"cat"_s, pair.certificate, u"&&"_s, u"printf"_s, u"'\\0'"_s, u"&&"_s, u"cat"_s, pair.key};
}

// Apache gets and renews the certificate from here on, as if it had got this one.
QString placeInStore(const QString &domain, const Brought &brought)
{
    const QString failed = u"cannot write into %1"_s.arg(https::storeFolder(domain));
    for (const QString &folder : {QLatin1StringView(https::kStore) + u"/domains"_s, https::storeFolder(domain)}) {
        if (::mkdir(QFile::encodeName(folder).constData(), kFolderMode) != 0 && errno != EEXIST)
            return failed;
    }
    // Read in between, there is a key without a certificate, which is nothing yet, and not a certificate with the key
    // of another, which Apache ends with.
    const Pair place = pairOf(domain, {});
    (void)QFile::remove(place.certificate);
    return replaceFile(place.key, brought.key, kFileMode) &&
                   replaceFile(place.certificate, brought.certificate, kFileMode)
               ? QString()
               : failed;
}

// Brings the pair; options gets the name of one that is the account's own. Sets *isNew where it was not here.
QString bringPair(const QString &host, const QString &account, const QString &domain, https::SiteOptions *options,
                  QString *told, bool *isNew)
{
    const QString own = std::exchange(options->own, {});
    https::SiteOptions there;
    there.own = own;
    QByteArray text;
    if (const QString problem = readThere(host, pairCommand(pairOf(domain, there)), &text); !problem.isEmpty())
        return problem;
    const qsizetype middle = text.indexOf('\0');
    if (middle < 0)
        return u"it did not come whole"_s;
    const Brought brought = {u"what is there"_s, u"what is there"_s, text.first(middle), text.sliced(middle + 1)};
    QStringList names{domain};
    if (!own.isEmpty() && !options->noWww)
        names.append(u"www."_s + domain);
    if (const QString problem = checkPair(brought, names, QDateTime::currentSecsSinceEpoch()); !problem.isEmpty())
        return problem;
    if (!isTrusted(brought))
        *told = u"its certificate comes from an authority that this server does not know"_s;
    if (!own.isEmpty()) {
        QString problem;
        options->own = keepOwn(account, brought, &problem);
        return problem;
    }
    const Pair here = pairOf(domain, {});
    if (https::readWhole(here.certificate, kLargest) == brought.certificate &&
        https::readWhole(here.key, kLargest) == brought.key)
        return {};
    *isNew = true;
    return placeInStore(domain, brought);
}

} // namespace

QByteArray firstBlock(const QByteArray &pem, const QByteArray &kind)
{
    const QByteArray begin = "-----BEGIN " + kind + "-----";
    const qsizetype from = pem.indexOf(begin);
    const qsizetype to = from < 0 ? -1 : pem.indexOf("-----END " + kind + "-----", from);
    return to < 0 ? QByteArray()
                  : pem.sliced(from + begin.size(), to - from - begin.size()).simplified().replace(' ', "");
}

HttpsThere parseHttpsThere(const QByteArray &output)
{
    HttpsThere https;
    https.isOn = output == kOn || output.startsWith(kOn + '\n');
    https.options = https::parseOptions(https.isOn ? output.sliced(kOn.size()) : output);
    return https;
}

QString lookAtHttpsThere(const QString &host, const QString &account, const QString &domain, HttpsThere *https)
{
    QByteArray text;
    if (const QString problem = readThere(host, choicesCommand(account), &text); !problem.isEmpty())
        return problem;
    *https = parseHttpsThere(text);
    // The domain is what its user's comment says there, and becomes a part of a path.
    if (!https->isOn || !https->options || https->options->off || !hosting::isStoredDomain(domain))
        return {};
    QByteArray pem;
    if (const QString problem = readThere(host, certificateCommand(pairOf(domain, *https->options)), &pem);
        !problem.isEmpty())
        return problem;
    https->certificate = parseCertificate(pem);
    return {};
}

bool isHttpsOnHere()
{
    return exists(QString::fromLatin1(https::kEnabledSite));
}

QString bringHttps(const QString &host, const QString &account, const QString &domain, QString *told)
{
    if (!isHttpsOnHere())
        return {};
    HttpsThere there;
    if (const QString problem = lookAtHttpsThere(host, account, domain, &there); !problem.isEmpty())
        return u"what was chosen for its HTTPS: "_s + problem;
    if (!there.isOn)
        return {};
    if (!there.options)
        return u"what was chosen for its HTTPS, which cannot be read there"_s;
    if (!https::makeFolders())
        return u"its HTTPS: the folders for it cannot be made"_s;
    https::SiteOptions options = *there.options;
    QString problem;
    bool isNew = false;
    if (there.certificate && !options.off)
        problem = bringPair(host, account, domain, &options, told, &isNew);
    else
        options.own.clear();
    if (!problem.isEmpty())
        problem = u"its certificate, one is ordered here when its names lead here: "_s + problem;
    if (https::readOptions(account) != options) {
        isNew = true;
        if (!replaceFile(https::optionsPath(account), https::optionsText(options), 0644))
            return u"what was chosen for its HTTPS: cannot write %1"_s.arg(https::optionsPath(account));
    }
    const QString unread = isNew ? reloadApache() : QString();
    return unread.isEmpty() ? problem : u"its HTTPS: "_s + unread;
}

QString httpsProblemHere(const QString &account, const QString &domain)
{
    const std::optional<https::SiteOptions> options = https::readOptions(account);
    if (!isHttpsOnHere() || !options || options->off || !hosting::isStoredDomain(domain))
        return {};
    const QByteArray wanted = firstBlock(
        https::readWhole(pairOf(domain, *options).certificate, kLargest).value_or(QByteArray()), kCertificate);
    if (wanted.isEmpty())
        return {};
    const QDeadlineTimer end(kWaitMs);
    for (;;) {
        const Outcome seen = runWithin(kVisitMs, u"openssl"_s,
                                       {u"s_client"_s, u"-connect"_s, u"127.0.0.1:443"_s, u"-servername"_s, domain});
        const QByteArray given = firstBlock(seen.output, kCertificate);
        if (given == wanted)
            return {};
        if (end.hasExpired())
            return given.isEmpty() ? u"no HTTPS answers for it here"_s
                                   : u"HTTPS answers here with another certificate"_s;
        QThread::msleep(kBetweenMs);
    }
}

} // namespace corv::ctl::moving
