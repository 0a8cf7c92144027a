#include "agent/Readiness.h"

#include <array>

#include <sys/epoll.h>

namespace corv {
namespace {

// So many descriptors get their turn before the event loop does.
constexpr int kBatch = 64;

} // namespace

Readiness::Readiness(QObject *parent)
    : QObject(parent), m_epoll(::epoll_create1(EPOLL_CLOEXEC)), m_notifier(m_epoll.get(), QSocketNotifier::Read)
{
    connect(&m_notifier, &QSocketNotifier::activated, this, &Readiness::onReady);
}

bool Readiness::add(int descriptor, const Listener &listener)
{
    epoll_event event = {};
    event.data.fd = descriptor;
    if (::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, descriptor, &event) != 0)
        return false;
    m_listeners.insert(descriptor, listener);
    return true;
}

void Readiness::setEvents(int descriptor, quint32 events)
{
    epoll_event event = {};
    event.events = events;
    event.data.fd = descriptor;
    (void)::epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, descriptor, &event);
}

void Readiness::remove(int descriptor)
{
    (void)::epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, descriptor, nullptr);
    m_listeners.remove(descriptor);
}

void Readiness::onReady()
{
    std::array<epoll_event, kBatch> ready = {};
    const int count = ::epoll_wait(m_epoll.get(), ready.data(), kBatch, 0);
    for (int i = 0; i < count; ++i) {
        const epoll_event &event = ready[static_cast<size_t>(i)];
        // An earlier one of the batch may have taken it out.
        if (const Listener listener = m_listeners.value(event.data.fd))
            listener(event.events);
    }
}

} // namespace corv
