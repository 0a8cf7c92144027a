#include "ctl/Transfer.h"

#include "agent/FilesTransfer.h"
#include "ctl/Remote.h"
#include "ctl/Session.h"

#include <QByteArray>
#include <QRandomGenerator>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr auto kFolder = "/var/lib/corvane/transfer";
constexpr mode_t kUploadMode = 0600;
constexpr qsizetype kRandomBytes = 24;
constexpr qsizetype kChunk = 262'144;
// How long the other server may take for what is left to do when all bytes have gone.
constexpr int kRemoteSeconds = 600;

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

// The size of what is open, in bytes; -1 where that is no file.
qint64 sizeOf(const Fd &file)
{
    struct stat status = {};
    return ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

// Copies all of source to target, size bytes where that is not negative. Empty, or what went wrong.
QString copy(const Terminal &terminal, const Fd &source, qint64 size, const Fd &target, const QString &what)
{
    Progress progress(terminal, what, size);
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

QString putHere(const Session &session, const Fd &source, const QString &name, const QString &what)
{
    const Fd folder = openFolder();
    if (!folder)
        return cannotOpenFolder();
    const Fd target(::openat(folder.get(), name.toLatin1().constData(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kUploadMode));
    if (!target)
        return u"cannot write to %1: %2"_s.arg(QLatin1StringView(kFolder), systemError());

    const QString problem = copy(session.terminal, source, sizeOf(source), target, what);
    if (!problem.isEmpty())
        removeFromTransfer(session, name);
    return problem;
}

// What the corvctl of the other server does for a transfer: it takes the file from its standard input, gives it on its
// standard output, or removes it.
QStringList proxyFor(const QString &action, const QString &name)
{
    return {u"corvctl"_s, u"proxy"_s, action + u'=' + name}; // the name may begin with a dash
}

QString startThere(const Session &session, const QString &action, const QString &name, Remote *remote)
{
    (void)std::signal(SIGPIPE, SIG_IGN); // an ssh that has ended is told by its exit status
    return remote->start(QString::fromStdString(session.options.hosts.front()), proxyFor(action, name));
}

QString putThere(const Session &session, const Fd &source, const QString &name, const QString &what)
{
    Remote remote;
    if (const QString problem = startThere(session, u"--put"_s, name, &remote); !problem.isEmpty())
        return problem;
    const QString problem = copy(session.terminal, source, sizeOf(source), remote.blockingStream(), what);
    if (!remote.readAll(kRemoteSeconds, 0))
        return u"no answer within %1 s"_s.arg(kRemoteSeconds);
    if (remote.wait() != 0)
        return remote.explain();
    if (!problem.isEmpty())
        removeFromTransfer(session, name); // half a file is a whole one over there
    return problem;
}

QString takeHere(const Session &session, const QString &name, const Fd &target, const QString &what)
{
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
    return copy(session.terminal, source, status.st_size, target, what);
}

QString takeThere(const Session &session, const QString &name, qint64 size, const Fd &target, const QString &what)
{
    Remote remote;
    if (const QString problem = startThere(session, u"--take"_s, name, &remote); !problem.isEmpty())
        return problem;
    const Fd &source = remote.blockingStream();
    (void)::shutdown(source.get(), SHUT_WR);
    const QString problem = copy(session.terminal, source, size, target, what);
    return problem.isEmpty() && remote.wait() != 0 ? remote.explain() : problem;
}

} // namespace

QString transferName()
{
    QByteArray bytes(kRandomBytes, '\0');
    std::generate(bytes.begin(), bytes.end(), [] { return static_cast<char>(QRandomGenerator::system()->generate()); });
    return QString::fromLatin1(bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

QString putIntoTransfer(const Session &session, const Fd &source, const QString &name, const QString &what)
{
    if (!files::validTransferName(name))
        return u"that is no name for a file of the transfer directory"_s;
    if (sizeOf(source) > kLargestTransfer)
        return u"over 256 MiB; use SFTP for big files"_s;
    return session.options.hosts.empty() ? putHere(session, source, name, what) : putThere(session, source, name, what);
}

QString takeFromTransfer(const Session &session, const QString &name, qint64 size, const Fd &target,
                         const QString &what)
{
    // It goes to a shell too, of the other server.
    if (!files::validTransferName(name))
        return u"the agent named no file of the transfer directory"_s;
    if (!session.options.hosts.empty())
        return takeThere(session, name, size, target, what);
    const QString problem = takeHere(session, name, target, what);
    removeFromTransfer(session, name);
    return problem;
}

void removeFromTransfer(const Session &session, const QString &name)
{
    if (!files::validTransferName(name))
        return;
    if (!session.options.hosts.empty()) {
        (void)runThere(session.options, proxyFor(u"--drop"_s, name), kRemoteSeconds);
        return;
    }
    const Fd folder = openFolder();
    (void)::unlinkat(folder.get(), name.toLatin1().constData(), 0); // the agent takes an upload out itself
}

} // namespace corv::ctl
