#include "ctl/Transfer.h"

#include "common/Transfer.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/remote/Remote.h"

#include <QByteArray>
#include <QRandomGenerator>
#include <QtEndian>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr mode_t kUploadMode = 0600;
constexpr qsizetype kRandomBytes = 24;
constexpr qsizetype kChunk = 262'144;
constexpr auto kTooBig = "over 256 MiB; use SFTP for big files"_L1;
// How long the other server may leave a piece lying, and may take for what is left to do when all have gone.
constexpr int kRemoteSeconds = 600;

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

Transferred failed(const QString &problem)
{
    return {kRefused, problem};
}

Fd openFolder()
{
    return Fd(::open(files::kTransferFolder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

QString cannotOpenFolder()
{
    return u"cannot open the transfer directory %1: %2"_s.arg(QLatin1StringView(files::kTransferFolder), systemError());
}

// The size of what is open, in bytes; -1 where that is no file.
qint64 sizeOf(const Fd &file)
{
    struct stat status = {};
    return ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

// Where the pieces of a file come from: fills the array, with nothing at the end.
using Source = std::function<Transferred(QByteArray *piece)>;
// Where they go.
using Target = std::function<Transferred(const QByteArray &piece)>;

Source from(const Fd &file)
{
    return [&file](QByteArray *piece) -> Transferred {
        piece->resize(kChunk);
        const ssize_t count = ::read(file.get(), piece->data(), kChunk);
        piece->resize(std::max<ssize_t>(count, 0));
        return count < 0 ? failed(u"cannot read: %1"_s.arg(systemError())) : Transferred();
    };
}

// Reads so many bytes; false when there are fewer.
bool readExactly(const Fd &file, QByteArray *bytes, qsizetype count)
{
    bytes->resize(count);
    for (qsizetype done = 0; done < count;) {
        const ssize_t more = ::read(file.get(), bytes->data() + done, static_cast<size_t>(count - done));
        if (more <= 0)
            return false;
        done += more;
    }
    return true;
}

Source fromPieces(const Fd &file)
{
    return [&file](QByteArray *piece) -> Transferred {
        QByteArray head;
        if (!readExactly(file, &head, sizeof(quint32)))
            return failed(u"the file was cut off on its way"_s);
        const auto length = qFromBigEndian<quint32>(head.constData());
        if (length > kChunk || !readExactly(file, piece, length))
            return failed(u"the file was cut off on its way"_s);
        return {};
    };
}

Target into(const Fd &file)
{
    return [&file](const QByteArray &piece) {
        return writeAll(file.get(), piece) ? Transferred() : failed(u"cannot write: %1"_s.arg(systemError()));
    };
}

// Copies all of source to target, size bytes where that is not negative.
Transferred copy(const Session &session, const Source &source, qint64 size, const Target &target, const QString &what)
{
    Progress progress(session.terminal, what, size);
    QByteArray piece;
    for (qint64 done = 0;;) {
        Transferred step = source(&piece);
        if (step.status == kDone && piece.isEmpty())
            return size < 0 || done == size ? Transferred() : failed(u"the file changed on its way"_s);
        done += piece.size();
        if (step.status == kDone && done > kLargestTransfer)
            return failed(kTooBig);
        if (step.status == kDone)
            step = target(piece);
        if (interrupted())
            return failed(u"interrupted"_s);
        if (step.status != kDone)
            return step;
        progress.show(done);
    }
}

Transferred putHere(const Session &session, const Source &source, qint64 size, const QString &name, const QString &what)
{
    const Fd folder = openFolder();
    if (!folder)
        return failed(cannotOpenFolder());
    const Fd target(::openat(folder.get(), name.toLatin1().constData(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kUploadMode));
    if (!target)
        return failed(u"cannot write to %1: %2"_s.arg(QLatin1StringView(files::kTransferFolder), systemError()));

    Transferred done = copy(session, source, size, into(target), what);
    if (done.status != kDone)
        removeFromTransfer(session, name);
    return done;
}

Transferred takeHere(const Session &session, const QString &name, const Fd &target, const QString &what)
{
    const Fd folder = openFolder();
    if (!folder)
        return failed(cannotOpenFolder());
    // What stands there belongs to another user, who may have put a link or a FIFO in its place.
    const Fd source(
        ::openat(folder.get(), name.toLatin1().constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!source || ::fstat(source.get(), &status) != 0)
        return failed(u"cannot read from %1: %2"_s.arg(QLatin1StringView(files::kTransferFolder), systemError()));
    if (!S_ISREG(status.st_mode))
        return failed(u"what the agent named is no file"_s);
    return copy(session, from(source), status.st_size, into(target), what);
}

// What the corvctl of the other server does for a transfer: it takes the file in pieces from its standard input, gives
// it on its standard output, or removes it.
QStringList proxyFor(const QString &action, const QString &name)
{
    return {u"corvctl"_s, u"proxy"_s, action + u'=' + name}; // the name may begin with a dash
}

int patienceOf(const Session &session)
{
    return session.options.timeout > 0 ? session.options.timeout : kRemoteSeconds;
}

// Why a stream to or from the other server came to an end that it should not have.
Transferred outcomeOf(const Session &session, Remote *remote, Remote::Moved moved)
{
    if (moved == Remote::Moved::Some)
        return {};
    if (moved == Remote::Moved::TimedOut) {
        return {kTimedOut, u"%1: no answer within %2 s"_s.arg(QString::fromStdString(session.options.hosts.front()),
                                                              QString::number(patienceOf(session)))};
    }
    const int status = remote->wait();
    return {status == kRefused ? kRefused : kNoConnection, remote->explain()};
}

Transferred putThere(const Session &session, const Fd &source, const QString &name, const QString &what)
{
    Remote remote;
    const QString host = QString::fromStdString(session.options.hosts.front());
    if (const QString problem = remote.start(host, proxyFor(u"--put"_s, name)); !problem.isEmpty())
        return {kNoConnection, problem};

    const auto send = [&](const QByteArray &piece) {
        QByteArray head(sizeof(quint32), '\0');
        qToBigEndian(static_cast<quint32>(piece.size()), head.data());
        return outcomeOf(session, &remote, remote.write(head + piece, patienceOf(session)));
    };
    Transferred done = copy(session, from(source), sizeOf(source), send, what);
    if (done.status == kDone)
        done = send({});
    if (done.status != kDone)
        return done;
    if (!remote.readAll(patienceOf(session), 0))
        return outcomeOf(session, &remote, Remote::Moved::TimedOut);
    return remote.wait() == 0 ? Transferred() : outcomeOf(session, &remote, Remote::Moved::Ended);
}

Transferred takeThere(const Session &session, const QString &name, qint64 size, const Fd &target, const QString &what)
{
    Remote remote;
    const QString host = QString::fromStdString(session.options.hosts.front());
    if (const QString problem = remote.start(host, proxyFor(u"--take"_s, name)); !problem.isEmpty())
        return {kNoConnection, problem};
    remote.finishWriting();

    const auto receive = [&](QByteArray *piece) -> Transferred {
        const Remote::Moved moved = remote.read(piece, patienceOf(session));
        if (moved != Remote::Moved::Ended)
            return outcomeOf(session, &remote, moved);
        piece->clear();
        return remote.wait() == 0 ? Transferred() : outcomeOf(session, &remote, moved);
    };
    return copy(session, receive, size, into(target), what);
}

} // namespace

QString transferName()
{
    QByteArray bytes(kRandomBytes, '\0');
    std::generate(bytes.begin(), bytes.end(), [] { return static_cast<char>(QRandomGenerator::system()->generate()); });
    return QString::fromLatin1(bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

Transferred putIntoTransfer(const Session &session, const Fd &source, const QString &name, const QString &what)
{
    if (sizeOf(source) > kLargestTransfer)
        return failed(kTooBig);
    const InterruptGuard guard;
    return session.options.hosts.empty() ? putHere(session, from(source), sizeOf(source), name, what)
                                         : putThere(session, source, name, what);
}

Transferred putPiecesIntoTransfer(const Session &session, const Fd &source, const QString &name)
{
    if (!files::validTransferName(name))
        return failed(u"that is no name for a file of the transfer directory"_s);
    const InterruptGuard guard;
    return putHere(session, fromPieces(source), -1, name, {});
}

Transferred takeFromTransfer(const Session &session, const QString &name, qint64 size, const Fd &target,
                             const QString &what)
{
    // It goes to a shell too, of the other server.
    if (!files::validTransferName(name))
        return failed(u"the agent named no file of the transfer directory"_s);
    const InterruptGuard guard;
    const bool isHere = session.options.hosts.empty();
    Transferred done = isHere ? takeHere(session, name, target, what) : takeThere(session, name, size, target, what);
    // The corvctl over there has removed what it has given.
    if (isHere || done.status != kDone)
        removeFromTransfer(session, name);
    return done;
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
