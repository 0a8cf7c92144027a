#include "agent/files/Transfer.h"

#include "common/Transfer.h"

#include <QRandomGenerator>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::files {
namespace {

constexpr mode_t kDownloadMode = 0600;
constexpr qsizetype kRandomBytes = 24;

Fd openFolder()
{
    return Fd(::open(kTransferFolder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

QString randomName()
{
    QByteArray bytes(kRandomBytes, '\0');
    std::generate(bytes.begin(), bytes.end(),
                  [] { return static_cast<char>(QRandomGenerator64::system()->generate()); });
    return QString::fromLatin1(bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

} // namespace

Fd takeUpload(const QString &name)
{
    const QByteArray entry = name.toLatin1();
    const Fd folder = openFolder();
    // A FIFO or a device would hold root up for ever in a blocking open.
    Fd file(::openat(folder.get(), entry.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat owned = {};
    struct stat status = {};
    if (!file || ::fstat(folder.get(), &owned) != 0 || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size > kMaxTransfer)
        return {};
    // Another user's file with a second name here: nobody but root could read it out of its own place.
    if (status.st_nlink > 1 && status.st_uid != owned.st_uid)
        return {};

    (void)::unlinkat(folder.get(), entry.constData(), 0); // gone already, if the panel was faster
    return file;
}

Download::Download()
    : m_folder(openFolder()), m_name(randomName()),
      m_file(::openat(m_folder.get(), m_name.toLatin1().constData(),
                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kDownloadMode))
{}

Download::~Download()
{
    if (m_file && !m_handedOver)
        (void)::unlinkat(m_folder.get(), m_name.toLatin1().constData(), 0);
}

std::optional<qint64> Download::handOver()
{
    struct stat folder = {};
    struct stat file = {};
    m_handedOver = isStillOurs() && ::fstat(m_folder.get(), &folder) == 0 &&
                   ::fchown(m_file.get(), folder.st_uid, folder.st_gid) == 0 &&
                   ::fchmod(m_file.get(), kDownloadMode) == 0 && ::fstat(m_file.get(), &file) == 0 &&
                   file.st_size <= kMaxTransfer;
    return m_handedOver ? std::optional<qint64>(file.st_size) : std::nullopt;
}

// Whether the name still leads to the file that was made under it, and nothing else does: the owner of the directory
// may have moved it away, or linked it to another name.
bool Download::isStillOurs() const
{
    struct stat made = {};
    struct stat named = {};
    return ::fstat(m_file.get(), &made) == 0 && S_ISREG(made.st_mode) && made.st_nlink == 1 &&
           made.st_uid == ::geteuid() &&
           ::fstatat(m_folder.get(), m_name.toLatin1().constData(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           named.st_dev == made.st_dev && named.st_ino == made.st_ino;
}

} // namespace corv::files
