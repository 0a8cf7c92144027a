#include "https/Inventory.h"

#include "common/HttpsFiles.h"
#include "common/HttpsOptions.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>

#include <sys/stat.h>
#include <sys/statvfs.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr auto kSites = "/etc/apache2/sites-enabled";
const auto kPrefix = u"corv-"_s;
const auto kSuffix = u".conf"_s;

// The agent's sites have less than a kilobyte.
constexpr qsizetype kLargestSite = qsizetype{8} * 1024;
// A fallback certificate, its key and a description for each of a hundred sites.
constexpr quint64 kRoomBytes = quint64{2} * 1024 * 1024;
constexpr fsfilcnt_t kRoomFiles = 500;

} // namespace

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
        const std::optional<SiteOptions> options = readOptions(account);
        candidate.optionsAreClear = options.has_value();
        candidate.options = options.value_or(SiteOptions());
        candidate.certificate = certificateOf(site->domain, candidate.options);
        candidate.certified =
            candidate.certificate && candidate.certificate->begins <= now && now < candidate.certificate->ends;
        candidates.append(candidate);
    }
    return candidates;
}

QString printOf(const QByteArray &text, const QString &domain, const SiteOptions &options)
{
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(text);
    QStringList paths;
    for (const QDir &folder : {QDir(storeFolder(domain)), QDir(stagingFolder(domain))}) {
        for (const QString &name : folder.entryList(QDir::Files | QDir::Hidden | QDir::System, QDir::Name))
            paths.append(folder.filePath(name));
    }
    if (!options.own.isEmpty())
        paths += {ownCertificatePath(options.own), ownKeyPath(options.own)};
    for (const QString &path : std::as_const(paths)) {
        struct stat status = {};
        (void)::lstat(QFile::encodeName(path).constData(), &status); // what is missing shows as nothing
        hash.addData(u"%1 %2 %3 %4\n"_s.arg(path)
                         .arg(status.st_size)
                         .arg(status.st_ctim.tv_sec)
                         .arg(status.st_ctim.tv_nsec)
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
