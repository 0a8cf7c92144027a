#pragma once

#include "agent/Readiness.h"
#include "common/Fd.h"

#include <QByteArray>
#include <QObject>

#include <functional>

class QDeadlineTimer;

namespace corv {

class Budget;

// One accepted client: reads request lines, hands each to the answerer and sends the reply line as soon as it is there.
//
// It works on the descriptor itself because a local socket object closes at end of file with the unsent rest of a
// reply, and a client may well shut down its sending side right after its request. Deletes itself when the client has
// gone.
class Connection : public QObject
{
    Q_OBJECT

public:
    // Takes a request line (with its line feed) and returns the reply line (with one).
    using Answerer = std::function<QByteArray(const QByteArray &line)>;

    // uid is the client's. readiness and budget must outlive all that the event loop does with the connection.
    Connection(Fd socket, quint32 uid, Answerer answerer, Readiness *readiness, Budget *budget, QObject *parent);

    // Waits until the client has taken what is unsent, at most until the deadline.
    void sendRest(const QDeadlineTimer &deadline);

private:
    void onReady(quint32 events);
    void receive();
    Q_INVOKABLE void serve();
    [[nodiscard]] bool mayServe() const;
    [[nodiscard]] bool hasRoomFor(qsizetype bytes);
    [[nodiscard]] qsizetype held() const;
    void forgetServed();
    void makeRoomForLine();
    qsizetype nextLineLength();
    void send(const QByteArray &reply);
    void flush();
    void listenAsNeeded();
    void drop();

    Fd m_socket;
    Answerer m_answerer;
    Readiness *m_readiness;
    Budget *m_budget;
    Readiness::Turn m_turn;
    quint64 m_number;            // the budget's, of this client
    quint32 m_awaited = 0;       // what the socket is watched for
    QByteArray m_received;       // bytes before m_start have been served
    qsizetype m_start = 0;       // where the next line begins
    qsizetype m_scanned = 0;     // no line feed stands between m_start and here
    QByteArray m_unsent;         // replies that the client has not taken yet
    bool m_mayBeLong = false;    // there is room for a line of any length
    bool m_waits = false;        // for room in the budget
    bool m_peerFinished = false; // the client sends nothing more, but may still read
    bool m_dropped = false;
};

} // namespace corv
