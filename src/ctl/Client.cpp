#include "ctl/Client.h"

#include "common/Json.h"
#include "ctl/Described.h"
#include "ctl/Interrupt.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// The agent drops a connection that sends more than this before a line feed.
constexpr qsizetype kLongestRequest = 4'194'304;
// Far over any reply that there is: a text of 2 MiB whose every byte is escaped is 12 MiB.
constexpr qsizetype kLongestReply = qsizetype(64) * 1'048'576;
constexpr qsizetype kChunk = 65'536;
// How often the wait is looked at, in milliseconds.
constexpr int kTick = 100;
// One program's time-out: what the request before may well take. And so many jails, or whatever else a command's time
// grows with, are waited for.
constexpr int kForTheOneBefore = 600;
constexpr int kForEach = 10;

Answer failed(Answer::Fate fate, const QString &problem, const QString &hint = {})
{
    return {fate, {}, {}, problem, hint};
}

Answer cannotConnect(const QByteArray &path, int error)
{
    const QString where = QString::fromUtf8(path);
    if (error == ENOENT || error == ENOTDIR)
        return failed(Answer::Fate::NoConnect, u"there is no socket %1"_s.arg(where),
                      u"is corv-agent installed and running? systemctl status corv-agent"_s);
    if (error == ECONNREFUSED)
        return failed(Answer::Fate::NoConnect, u"the agent is not running: nothing listens on %1"_s.arg(where),
                      u"systemctl start corv-agent, then journalctl -u corv-agent if that fails"_s);
    if (error == EACCES || error == EPERM)
        return failed(Answer::Fate::NoConnect, u"no permission to use %1"_s.arg(where),
                      u"run corvctl as root or as the panel's user"_s);
    return failed(Answer::Fate::NoConnect,
                  u"cannot connect to %1: %2"_s.arg(where, QString::fromLocal8Bit(std::strerror(error))));
}

Answer timedOut(int seconds)
{
    return failed(Answer::Fate::TimedOut, u"no reply within %1 s"_s.arg(seconds),
                  u"the agent goes on with a request that it has taken; --timeout waits longer"_s);
}

// 0, or the error that keeps from a connection. With its queue full, an agent can be connected to later.
int connectTo(const QByteArray &path, Fd *socket, const QDeadlineTimer &end)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (static_cast<size_t>(path.size()) >= sizeof address.sun_path)
        return ENAMETOOLONG;
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));

    *socket = Fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    while (::connect(socket->get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int error = errno;
        if (error != EAGAIN && error != EINTR)
            return error;
        if (end.hasExpired())
            return EAGAIN;
        ::poll(nullptr, 0, kTick);
    }
    return 0;
}

// Whether all that was sent has been read at the other end.
bool wasTaken(const Fd &socket)
{
    int unread = 0;
    return ::ioctl(socket.get(), SIOCOUTQ, &unread) == 0 && unread == 0;
}

// The process that listens at the other end; 0 where that is not known.
int agentAt(const Fd &socket)
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    return ::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.pid : 0;
}

// What becomes of a request when nobody waits for its reply any more; who asked knows which it was.
Answer cutShort(bool isSent, bool mustWait)
{
    if (!isSent)
        return failed(Answer::Fate::Interrupted, u"interrupted before %1 was sent: it is not carried out"_s);
    return failed(Answer::Fate::Interrupted, mustWait ? u"the agent will go on with %1 after the request before it"_s
                                                      : u"the agent goes on with %1"_s);
}

Answer readReply(const QByteArray &line)
{
    const QJsonObject reply = parseObject(line);
    if (!reply.value("ok"_L1).isBool())
        return failed(Answer::Fate::NoConnect, u"what answers there does not speak the agent's protocol"_s);
    return {Answer::Fate::Replied, line, reply, {}, {}};
}

} // namespace

std::optional<Answer> Client::open(int seconds, Fd *socket)
{
    if (m_way.open) {
        const QString problem = m_way.open(socket);
        return problem.isEmpty() ? std::nullopt : std::optional(failed(Answer::Fate::NoConnect, problem));
    }
    const int error = connectTo(m_path, socket, QDeadlineTimer(seconds * 1000LL));
    if (error == 0)
        return {};
    socket->reset();
    return error == EAGAIN ? timedOut(seconds) : cannotConnect(m_path, error);
}

// The connection was closed without a reply.
Answer Client::ended() const
{
    if (m_way.explain)
        return failed(Answer::Fate::NoConnect, m_way.explain());
    return failed(Answer::Fate::NoConnect, u"the agent closed the connection without a reply"_s,
                  u"it lets in root and the user of the setting agent/allowed_user; or it was stopped"_s);
}

Answer Client::request(const QByteArray &line, int seconds, const OnWaiting &onWaiting)
{
    if (line.size() >= kLongestRequest)
        return failed(Answer::Fate::TooLarge, u"the request is larger than 4 MiB"_s,
                      u"corvctl file put sends files of up to 256 MiB"_s);

    QElapsedTimer clock;
    clock.start();
    const QDeadlineTimer end(seconds * 1000LL);
    if (!m_socket) {
        if (const std::optional<Answer> failure = open(seconds, &m_socket))
            return *failure;
    }
    // Whatever ends this early leaves a connection whose next reply would be that to this request.
    Fd socket = std::move(m_socket);

    const QByteArray data = line + '\n';
    qsizetype sent = 0;
    QByteArray received;
    for (;;) {
        pollfd wanted = {socket.get(), static_cast<short>(sent < data.size() ? POLLIN | POLLOUT : POLLIN), 0};
        const int left = static_cast<int>(std::min<qint64>(kTick, end.remainingTime()));
        if (::poll(&wanted, 1, left) < 0 && errno != EINTR)
            return cannotConnect(m_path, errno);
        if (interrupted())
            return cutShort(sent == data.size(), sent == data.size() && !m_way.open && !wasTaken(socket));
        if (end.hasExpired())
            return timedOut(seconds);
        if (wanted.revents == 0) {
            const auto waited = static_cast<int>(clock.elapsed() / 1000);
            if (m_way.lookAfter)
                m_way.lookAfter();
            onWaiting(m_way.open ? Waiting{{}, waited}
                                 : Waiting{sent == data.size() && wasTaken(socket), waited, agentAt(socket)});
            continue;
        }

        if (wanted.revents & POLLOUT) {
            const ssize_t count =
                ::send(socket.get(), data.constData() + sent, static_cast<size_t>(data.size() - sent), MSG_NOSIGNAL);
            sent += count > 0 ? count : 0;
        }
        if (!(wanted.revents & (POLLIN | POLLHUP | POLLERR)))
            continue;

        const qsizetype before = received.size();
        received.resize(before + kChunk);
        const ssize_t count = ::recv(socket.get(), received.data() + before, kChunk, 0);
        received.resize(before + std::max<ssize_t>(count, 0));
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (count <= 0 && received.isEmpty())
            return ended();
        if (count <= 0)
            return failed(Answer::Fate::NoConnect, u"the connection was cut off in the middle of the reply"_s);
        if (const qsizetype feed = received.indexOf('\n', before); feed >= 0) {
            m_socket = std::move(socket);
            received.truncate(feed);
            return readReply(received);
        }
        if (received.size() > kLongestReply)
            return failed(Answer::Fate::NoConnect, u"the reply is larger than 64 MiB"_s);
    }
}

int patience(const QString &command)
{
    int longest = 0;
    for (const Described &one : described()) {
        const int seconds = kForTheOneBefore + one.seconds + kForEach * one.secondsForEach;
        if (command == QLatin1StringView(one.name))
            return seconds;
        longest = std::max(longest, seconds);
    }
    return longest;
}

} // namespace corv::ctl
