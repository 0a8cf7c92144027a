#include "agent/Readiness.h"

#include <array>

#include <sys/epoll.h>

namespace corv {
namespace {

// So many descriptors get their turn before the event loop does.
constexpr int kBatch = 64;

} // namespace

Readiness::Readiness(QObject *parent)
    : QObject(parent), m_usual(::epoll_create1(EPOLL_CLOEXEC)), m_first(::epoll_create1(EPOLL_CLOEXEC)),
      m_usualNotifier(m_usual.get(), QSocketNotifier::Read), m_firstNotifier(m_first.get(), QSocketNotifier::Read)
{
    connect(&m_usualNotifier, &QSocketNotifier::activated, this, [this] { onReady(Turn::Usual); });
    connect(&m_firstNotifier, &QSocketNotifier::activated, this, [this] { onReady(Turn::First); });
}

const Fd &Readiness::queue(Turn turn) const
{
    return turn == Turn::First ? m_first : m_usual;
}

bool Readiness::add(int descriptor, Turn turn, const Listener &listener)
{
    epoll_event event = {};
    event.data.fd = descriptor;
    if (::epoll_ctl(queue(turn).get(), EPOLL_CTL_ADD, descriptor, &event) != 0)
        return false;
    m_watched.insert(descriptor, {turn, listener});
    return true;
}

void Readiness::setEvents(int descriptor, quint32 events)
{
    epoll_event event = {};
    event.events = events != 0 ? events : quint32(EPOLLONESHOT);
    event.data.fd = descriptor;
    (void)::epoll_ctl(queue(m_watched.value(descriptor).turn).get(), EPOLL_CTL_MOD, descriptor, &event);
}

void Readiness::remove(int descriptor)
{
    (void)::epoll_ctl(queue(m_watched.value(descriptor).turn).get(), EPOLL_CTL_DEL, descriptor, nullptr);
    m_watched.remove(descriptor);
}

void Readiness::giveFirstTurn()
{
    onReady(Turn::First);
}

void Readiness::onReady(Turn turn)
{
    std::array<epoll_event, kBatch> ready = {};
    const int count = ::epoll_wait(queue(turn).get(), ready.data(), kBatch, 0);
    for (int i = 0; i < count; ++i) {
        const epoll_event &event = ready[static_cast<size_t>(i)];
        // An earlier one of the batch may have taken it out.
        const auto found = m_watched.constFind(event.data.fd);
        if (found == m_watched.cend() || found->turn != turn)
            continue;
        const Listener listener = found->listener;
        listener(event.events);
        if (turn == Turn::Usual)
            giveFirstTurn();
    }
}

} // namespace corv
