#include "ctl/Transfer.h"

#include "agent/FilesTransfer.h"
#include "ctl/Terminal.h"

#include <QByteArray>
#include <QRandomGenerator>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr auto kFolder = "/var/lib/corvane/transfer";
constexpr mode_t kUploadMode = 0600;
constexpr qsizetype kRandomBytes = 24;
constexpr qsizetype kChunk = 262'144;

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

Fd openFolder()
{
    return Fd(::open(kFolder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

QString cannotOpenFolder()
{
    return u"cannot open the transfer directory %1: %2"_s.arg(QLatin1StringView(kFolder), systemError());
}

// Copies all of source to target. Empty, or what went wrong.
QString copy(const Terminal &terminal, const Fd &source, const Fd &target, const QString &what)
{
    struct stat status = {};
    const bool sized = ::fstat(source.get(), &status) == 0 && S_ISREG(status.st_mode);
    Progress progress(terminal, what, sized ? status.st_size : -1);
    QByteArray chunk(kChunk, '\0');
    for (qint64 done = 0;;) {
        const ssize_t count = ::read(source.get(), chunk.data(), kChunk);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return u"cannot read: %1"_s.arg(systemError());
        if (count == 0)
            return {};
        done += count;
        if (done > kLargestTransfer)
            return u"over 256 MiB; use SFTP for big files"_s;
        if (!writeAll(target.get(), QByteArray::fromRawData(chunk.constData(), count)))
            return u"cannot write: %1"_s.arg(systemError());
        progress.show(done);
    }
}

} // namespace

QString transferName()
{
    QByteArray bytes(kRandomBytes, '\0');
    std::generate(bytes.begin(), bytes.end(), [] { return static_cast<char>(QRandomGenerator::system()->generate()); });
    return QString::fromLatin1(bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

QString putIntoTransfer(const Terminal &terminal, const Fd &source, const QString &name, const QString &what)
{
    struct stat status = {};
    if (::fstat(source.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > kLargestTransfer)
        return u"over 256 MiB; use SFTP for big files"_s;
    const Fd folder = openFolder();
    if (!folder)
        return cannotOpenFolder();
    const Fd target(::openat(folder.get(), name.toLatin1().constData(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kUploadMode));
    if (!target)
        return u"cannot write to %1: %2"_s.arg(QLatin1StringView(kFolder), systemError());

    const QString problem = copy(terminal, source, target, what);
    if (!problem.isEmpty())
        removeFromTransfer(name);
    return problem;
}

QString takeFromTransfer(const Terminal &terminal, const QString &name, const Fd &target, const QString &what)
{
    if (!files::validTransferName(name))
        return u"the agent named no file of the transfer directory"_s;
    const Fd folder = openFolder();
    if (!folder)
        return cannotOpenFolder();
    // What stands there belongs to another user, who may have put a link or a FIFO in its place.
    const Fd source(
        ::openat(folder.get(), name.toLatin1().constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!source || ::fstat(source.get(), &status) != 0)
        return u"cannot read from %1: %2"_s.arg(QLatin1StringView(kFolder), systemError());
    if (!S_ISREG(status.st_mode))
        return u"what the agent named is no file"_s;
    const QString problem = copy(terminal, source, target, what);
    removeFromTransfer(name);
    return problem;
}

void removeFromTransfer(const QString &name)
{
    if (!files::validTransferName(name))
        return;
    const Fd folder = openFolder();
    (void)::unlinkat(folder.get(), name.toLatin1().constData(), 0); // the agent takes an upload out itself
}

} // namespace corv::ctl
