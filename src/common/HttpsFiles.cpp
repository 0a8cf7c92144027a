#include "common/HttpsFiles.h"

#include <QFile>
#include <QStringList>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr qsizetype kLargestChoices = qsizetype{4} * 1024;
// One with its chain has some ten kilobytes.
constexpr qsizetype kLargestCertificate = qsizetype{256} * 1024;

struct Folder
{
    const char *path;
    mode_t mode;
};
// Apache passes through those of the store as another user; what is private there lies deeper.
constexpr Folder kFolders[] = {{"/run/corvane", 0755},       {kRunFolder, 0755},   {kProbeFolder, 0755},
                               {"/var/lib/corvane", 0755},   {kStateFolder, 0755}, {"/etc/corvane", 0755},
                               {"/etc/corvane/https", 0711}, {kStore, 0755},       {kOwnFolder, 0700},
                               {kOptionsFolder, 0755}};

} // namespace

std::optional<QByteArray> readWhole(const QString &path, qsizetype most)
{
    return readWhole(Fd(::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)), most);
}

std::optional<QByteArray> readWhole(const Fd &file, qsizetype most)
{
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

QString storeFolder(const QString &domain)
{
    return u"%1/domains/%2"_s.arg(QLatin1StringView(kStore), domain);
}

QString stagingFolder(const QString &domain)
{
    return QLatin1StringView(kStagingFolder) + u'/' + domain;
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

std::optional<SiteOptions> readOptions(const QString &account)
{
    const QString path = optionsPath(account);
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return SiteOptions();
    const std::optional<QByteArray> text = readWhole(path, kLargestChoices);
    return text ? parseOptions(*text) : std::nullopt;
}

bool makeFolders()
{
    return std::ranges::all_of(kFolders, [](const Folder &folder) {
        if (::mkdir(folder.path, folder.mode) != 0)
            return errno == EEXIST;
        (void)::chmod(folder.path, folder.mode); // whatever the mask is; missing rights show at once
        return true;
    });
}

} // namespace corv::https
