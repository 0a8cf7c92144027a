#include "agent/Connection.h"

#include "agent/Budget.h"
#include "agent/Stop.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace corv {
namespace {

constexpr qsizetype kMaxLine = 4'194'304; // bytes, the line feed included
constexpr qsizetype kReadSize = 65'536;
// So much of a line every client may send without room in the budget: most requests are shorter.
constexpr qsizetype kShortLine = 4'096;
// Without so much room nothing is answered. A reply can be longer, and what it takes is told afterwards: there is only
// one at a time.
constexpr qsizetype kReplyRoom = 65'536;
// What a line of any length takes: what is read beyond its end, and its reply, for which nobody must wait who holds so
// much already.
constexpr qsizetype kLongLine = kMaxLine + kReadSize + kReplyRoom;
// A client that sends requests and never reads has them wait beyond this, so that replies do not pile up in memory.
constexpr qsizetype kMaxUnsent = 1'048'576;

} // namespace

Connection::Connection(Fd socket, quint32 uid, Answerer answerer, Readiness *readiness, Budget *budget, QObject *parent)
    : QObject(parent), m_socket(std::move(socket)), m_answerer(std::move(answerer)), m_readiness(readiness),
      m_budget(budget), m_turn(uid == 0 ? Readiness::Turn::First : Readiness::Turn::Usual),
      m_number(budget->enter(uid, [this] {
          m_waits = false;
          QMetaObject::invokeMethod(this, "serve", Qt::QueuedConnection);
      }))
{
    if (m_readiness->add(m_socket.get(), m_turn, [this](quint32 events) { onReady(events); }))
        listenAsNeeded();
    else
        drop();
}

// A client that has gone altogether is told without being asked for, and found out by whatever is awaited of it.
void Connection::onReady(quint32 events)
{
    const quint32 ready = (events & (EPOLLHUP | EPOLLERR)) != 0 ? m_awaited : events & m_awaited;
    if ((ready & EPOLLOUT) != 0) {
        flush();
        serve();
    }
    if ((ready & EPOLLIN) != 0 && !m_dropped)
        receive();
}

void Connection::receive()
{
    const qsizetype room = m_mayBeLong ? kReadSize : kShortLine - m_received.size();
    if (room <= 0)
        return;
    std::array<char, kReadSize> chunk; // NOLINT(cppcoreguidelines-pro-type-member-init): filled by recv
    const ssize_t count = ::recv(m_socket.get(), chunk.data(), static_cast<size_t>(room), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count > 0)
        m_received.append(chunk.data(), count);
    else
        m_peerFinished = true;
    serve();
}

// Answers the lines that are complete, one after the other, then forgets them. Between two of them root has its turn,
// however many one sends at a time.
void Connection::serve()
{
    if (m_dropped)
        return;
    bool lineLeft = true;
    while (lineLeft && mayServe()) {
        const qsizetype length = nextLineLength();
        lineLeft = length > 0;
        if (!lineLeft || !(m_mayBeLong || hasRoomFor(kReplyRoom)))
            break;
        const QByteArray line = m_received.sliced(m_start, length);
        m_start += length;
        send(m_answerer(line));
        m_budget->hold(m_number, held());
        if (m_turn != Readiness::Turn::First)
            m_readiness->giveFirstTurn();
    }

    forgetServed();
    if (!lineLeft && m_received.size() > kMaxLine) {
        drop();
        return;
    }
    if (!lineLeft)
        makeRoomForLine();
    m_budget->hold(m_number, held());
    listenAsNeeded();
}

bool Connection::mayServe() const
{
    return !m_waits && !stopRequested() && m_unsent.size() <= kMaxUnsent;
}

// Whether so many bytes more can be held now. If not, the budget lets it go on when they can.
bool Connection::hasRoomFor(qsizetype bytes)
{
    m_waits = !m_budget->ask(m_number, held() + bytes);
    return !m_waits;
}

// What counts in the budget.
qsizetype Connection::held() const
{
    return (m_mayBeLong ? kLongLine : 0) + m_unsent.capacity();
}

// Lets go of the lines that have been answered, and of the room for a long one where the rest is short.
void Connection::forgetServed()
{
    m_received.remove(0, m_start);
    m_scanned = std::max<qsizetype>(0, m_scanned - m_start);
    m_start = 0;
    if (m_received.size() >= kShortLine)
        return;
    m_received.squeeze();
    m_mayBeLong = false;
}

// A line that gets long is given all the room that any can need at once: if each took it piece by piece, many could
// wait for each other for ever.
void Connection::makeRoomForLine()
{
    if (m_mayBeLong || m_received.size() < kShortLine || !hasRoomFor(kLongLine))
        return;
    m_mayBeLong = true;
    m_received.reserve(kMaxLine + kReadSize);
}

// The length of the next line with its line feed, 0 while it is not complete. A line over the limit is handed out in
// pieces of the limit's size. What has been searched for a line feed is never searched again: a client that dribbles
// megabytes byte by byte must not cost quadratic time.
qsizetype Connection::nextLineLength()
{
    m_scanned = std::max(m_scanned, m_start);
    const qsizetype lineFeed = m_received.indexOf('\n', m_scanned);
    if (lineFeed < 0) {
        m_scanned = m_received.size();
        return 0;
    }
    m_scanned = lineFeed;
    return std::min(lineFeed + 1 - m_start, kMaxLine);
}

void Connection::send(const QByteArray &reply)
{
    m_unsent.append(reply);
    flush();
}

// Sends as much as the client takes now. What nobody is there to read is thrown away: whatever was asked for before is
// still carried out.
void Connection::flush()
{
    qsizetype sent = 0;
    while (sent < m_unsent.size()) {
        const ssize_t count = ::send(m_socket.get(), m_unsent.constData() + sent,
                                     static_cast<size_t>(m_unsent.size() - sent), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0) {
            sent += count;
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN) {
            m_unsent.remove(0, sent);
            return;
        }
        break;
    }
    m_unsent.clear();
}

void Connection::listenAsNeeded()
{
    if (m_peerFinished && !m_waits && m_unsent.isEmpty()) {
        drop();
        return;
    }
    const quint32 writing = m_unsent.isEmpty() ? 0 : quint32(EPOLLOUT);
    const bool isReading = !m_peerFinished && !m_waits && m_unsent.size() <= kMaxUnsent;
    const quint32 reading = isReading ? quint32(EPOLLIN) : 0;
    if (m_awaited == (reading | writing))
        return;
    m_awaited = reading | writing;
    m_readiness->setEvents(m_socket.get(), m_awaited);
}

void Connection::drop()
{
    m_dropped = true;
    m_readiness->remove(m_socket.get());
    m_budget->leave(m_number);
    deleteLater();
}

void Connection::sendRest(const QDeadlineTimer &deadline)
{
    while (!m_dropped && !m_unsent.isEmpty() && !deadline.hasExpired()) {
        pollfd waiting = {m_socket.get(), POLLOUT, 0};
        ::poll(&waiting, 1, static_cast<int>(deadline.remainingTime()));
        flush();
    }
}

} // namespace corv
