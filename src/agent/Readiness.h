#pragma once

#include "common/Fd.h"

#include <QHash>
#include <QObject>
#include <QSocketNotifier>

#include <functional>

namespace corv {

// Tells which of many descriptors can be read from or written to. With the event loop's own notifiers every turn of it
// would look at all of them, and a thousand silent clients would make each request of another several times as slow.
class Readiness : public QObject
{
    Q_OBJECT

public:
    // Takes what the descriptor is ready for: EPOLLIN, EPOLLOUT, and EPOLLHUP or EPOLLERR unasked.
    using Listener = std::function<void(quint32 events)>;

    explicit Readiness(QObject *parent);

    // Watches a descriptor, for nothing yet. False when the system cannot watch any more of them.
    bool add(int descriptor, const Listener &listener);

    // What a descriptor is watched for from now on.
    void setEvents(int descriptor, quint32 events);

    // Watches it no more; its listener is not called again. To be called before the descriptor is closed.
    void remove(int descriptor);

private:
    void onReady();

    Fd m_epoll;
    QSocketNotifier m_notifier;
    QHash<int, Listener> m_listeners;
};

} // namespace corv
