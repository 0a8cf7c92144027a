#include "https/Inventory.h"

#include "common/Fd.h"
#include "common/HttpsOptions.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr auto kSites = "/etc/apache2/sites-enabled";
const auto kPrefix = u"corv-"_s;
const auto kSuffix = u".conf"_s;

// The agent's sites have less than a kilobyte, a certificate with its chain some ten.
constexpr qsizetype kLargestSite = qsizetype{8} * 1024;
constexpr qsizetype kLargestChoices = qsizetype{4} * 1024;
constexpr qsizetype kLargestCertificate = qsizetype{256} * 1024;
// A fallback certificate, its key and a description for each of a hundred sites.
constexpr quint64 kRoomBytes = quint64{2} * 1024 * 1024;
constexpr fsfilcnt_t kRoomFiles = 500;

QString storeFolder(const QString &domain)
{
    return u"%1/domains/%2"_s.arg(QLatin1StringView(kStore), domain);
}

void setOptions(Candidate *candidate)
{
    const QString path = optionsPath(candidate->site.account);
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return;
    const std::optional<QByteArray> text = readWhole(path, kLargestChoices);
    const std::optional<SiteOptions> options = text ? parseOptions(*text) : std::nullopt;
    candidate->optionsAreClear = options.has_value();
    candidate->options = options.value_or(SiteOptions());
}

} // namespace

std::optional<QByteArray> readWhole(const QString &path, qsizetype most)
{
    const Fd file(::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > most)
        return std::nullopt;
    QByteArray bytes(most + 1, Qt::Uninitialized);
    qsizetype size = 0;
    while (size <= most) {
        const ssize_t count = ::read(file.get(), bytes.data() + size, static_cast<size_t>(bytes.size() - size));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            break;
        size += count;
    }
    if (size > most)
        return std::nullopt;
    bytes.truncate(size);
    return bytes;
}

QList<Candidate> readCandidates(qint64 now, QStringList *told)
{
    QList<Candidate> candidates;
    // Of names alone: what a link leads to is looked at when it is open.
    const QStringList files = QDir(QString::fromLatin1(kSites))
                                  .entryList({kPrefix + u'*' + kSuffix}, QDir::AllEntries | QDir::System, QDir::Name);
    for (const QString &file : files) {
        const QString account = file.sliced(kPrefix.size(), file.size() - kPrefix.size() - kSuffix.size());
        const std::optional<QByteArray> text = readWhole(QString::fromLatin1(kSites) + u'/' + file, kLargestSite);
        const std::optional<AccountSite> site = text ? recognise(account, *text) : std::nullopt;
        if (!site) {
            told->append(u"%1 is not as the agent writes sites, and left alone"_s.arg(file));
            continue;
        }
        Candidate candidate{*site};
        setOptions(&candidate);
        const std::optional<Certificate> certificate = certificateOf(site->domain, candidate.options);
        candidate.certified = certificate && certificate->begins <= now && now < certificate->ends;
        candidates.append(candidate);
    }
    return candidates;
}

std::optional<Certificate> certificateOf(const QString &domain, const SiteOptions &options)
{
    QStringList paths;
    if (!options.own.isEmpty())
        paths.append(ownCertificatePath(options.own));
    else
        // The kind of its key stands in its name.
        paths = {storeFolder(domain) + u"/pubcert.p-256.pem"_s, storeFolder(domain) + u"/pubcert.pem"_s};
    for (const QString &path : std::as_const(paths)) {
        const std::optional<QByteArray> pem = readWhole(path, kLargestCertificate);
        if (const std::optional<Certificate> certificate = pem ? parseCertificate(*pem) : std::nullopt)
            return certificate;
    }
    return std::nullopt;
}

QString printOf(const QByteArray &text, const QString &domain, const SiteOptions &options)
{
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(text);
    QStringList paths;
    const QDir folder(storeFolder(domain));
    for (const QString &name : folder.entryList(QDir::Files | QDir::Hidden | QDir::System, QDir::Name))
        paths.append(folder.filePath(name));
    if (!options.own.isEmpty())
        paths += {ownCertificatePath(options.own), ownKeyPath(options.own)};
    for (const QString &path : std::as_const(paths)) {
        struct stat status = {};
        (void)::lstat(QFile::encodeName(path).constData(), &status); // what is missing shows as nothing
        hash.addData(u"%1 %2 %3 %4\n"_s.arg(path)
                         .arg(status.st_size)
                         .arg(status.st_mtim.tv_sec)
                         .arg(status.st_mtim.tv_nsec)
                         .toUtf8());
    }
    return QString::fromLatin1(hash.result().toHex());
}

bool isStoreFull()
{
    struct statvfs status = {};
    if (::statvfs(kStore, &status) != 0)
        return false;
    // File systems without a table of files say that they have none.
    return quint64{status.f_bavail} * status.f_frsize < kRoomBytes ||
           (status.f_files > 0 && status.f_favail < kRoomFiles);
}

} // namespace corv::https
