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

    // Whose turn comes first: whenever one that is ready has had its own, those with the first turn have theirs,
    // however many others are ready too.
    enum class Turn { Usual, First };

    explicit Readiness(QObject *parent);

    // Watches a descriptor, for nothing yet. False when the system cannot watch any more of them.
    bool add(int descriptor, Turn turn, const Listener &listener);

    // What a descriptor is watched for from now on. One that is watched for nothing tells only once that the other side
    // has gone, instead of in each turn.
    void setEvents(int descriptor, quint32 events);

    // Lets those that are ready and have the first turn have it now, before whatever else the caller is about to do.
    void giveFirstTurn();

    // Watches it no more; its listener is not called again. To be called before the descriptor is closed.
    void remove(int descriptor);

private:
    struct Watched
    {
        Turn turn = Turn::Usual;
        Listener listener;
    };

    [[nodiscard]] const Fd &queue(Turn turn) const;
    void onReady(Turn turn);

    Fd m_usual;
    Fd m_first;
    QSocketNotifier m_usualNotifier;
    QSocketNotifier m_firstNotifier;
    QHash<int, Watched> m_watched;
};

} // namespace corv
