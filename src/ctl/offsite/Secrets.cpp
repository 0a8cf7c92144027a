#include "ctl/offsite/Secrets.h"

#include "common/AtomicFile.h"
#include "common/Fd.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;
constexpr qint64 kLargest = 65'536;
// 32 of them, so that each tells five bits; without those that look alike.
constexpr auto kLetters = "abcdefghijkmnpqrstuvwxyz23456789";
constexpr size_t kKeyLetters = 32;
constexpr size_t kGroup = 4;

} // namespace

std::optional<QByteArray> secretIn(const QString &path, QString *problem)
{
    const Fd file(::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file) {
        if (errno != ENOENT)
            *problem = u"%1 cannot be read: %2"_s.arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        return {};
    }
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > kLargest) {
        *problem = u"%1 is no file of a secret"_s.arg(path);
        return {};
    }
    if (status.st_uid != 0 || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        *problem = u"%1 is not root's alone: chown root %1; chmod 600 %1"_s.arg(path);
        return {};
    }
    QByteArray content(static_cast<qsizetype>(status.st_size), '\0');
    const ssize_t count = ::read(file.get(), content.data(), static_cast<size_t>(content.size()));
    return content.left(std::max<ssize_t>(count, 0));
}

QString keepSecret(const QString &path, const QByteArray &content)
{
    const QByteArray folder = QFile::encodeName(QFileInfo(path).path());
    if (::mkdir(folder.constData(), kFolderMode) != 0 && errno != EEXIST)
        return u"%1 cannot be made: %2"_s.arg(QFileInfo(path).path(), QString::fromLocal8Bit(std::strerror(errno)));
    // What is there keeps its mode when it is replaced, and may have been made by hand.
    if (!replaceFile(path, content, kFileMode) || ::chmod(QFile::encodeName(path).constData(), kFileMode) != 0)
        return u"cannot write "_s + path;
    return {};
}

QByteArray newKey()
{
    unsigned char random[kKeyLetters] = {};
    if (::getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random))
        return {};
    QByteArray key;
    for (size_t i = 0; i < kKeyLetters; ++i) {
        if (i > 0 && i % kGroup == 0)
            key += '-';
        key += kLetters[random[i] % 32U];
    }
    return key;
}

} // namespace corv::ctl
