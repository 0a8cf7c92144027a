#include "agent/Readiness.h"

#include <QTest>

#include <array>

#include <sys/epoll.h>
#include <sys/socket.h>

using namespace corv;

namespace {

// Two sockets that are connected to each other: what is sent to the second arrives at the first.
struct Pair
{
    Fd watched;
    Fd other;
};

Pair connectedPair()
{
    std::array<int, 2> descriptors = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, descriptors.data()) != 0)
        return {};
    return {Fd(descriptors[0]), Fd(descriptors[1])};
}

bool sendByte(const Pair &pair)
{
    return ::send(pair.other.get(), "x", 1, MSG_NOSIGNAL) == 1;
}

} // namespace

class TestReadiness : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tellsWhatIsWatchedForAlone()
    {
        const Pair pair = connectedPair();
        Readiness readiness(nullptr);
        QList<quint32> told;
        QVERIFY(
            readiness.add(pair.watched.get(), Readiness::Turn::Usual, [&](quint32 events) { told.append(events); }));
        QVERIFY(sendByte(pair));
        QCoreApplication::processEvents();
        QCOMPARE(told, QList<quint32>());

        readiness.setEvents(pair.watched.get(), EPOLLIN);
        QVERIFY(QTest::qWaitFor([&] { return !told.isEmpty(); }));
        QCOMPARE(told.constFirst(), quint32(EPOLLIN));

        readiness.setEvents(pair.watched.get(), 0);
        told.clear();
        QCoreApplication::processEvents();
        QCOMPARE(told, QList<quint32>());
    }

    void tellsOfAClientThatHasGoneUnasked()
    {
        Pair pair = connectedPair();
        Readiness readiness(nullptr);
        quint32 told = 0;
        QVERIFY(readiness.add(pair.watched.get(), Readiness::Turn::Usual, [&](quint32 events) { told |= events; }));
        pair.other = Fd();
        QVERIFY(QTest::qWaitFor([&] { return (told & EPOLLHUP) != 0; }));
    }

    // Both are ready in the same turn, and whichever is told first takes the other one out.
    void doesNotCallWhatWasTakenOutInTheSameTurn()
    {
        const Pair one = connectedPair();
        const Pair two = connectedPair();
        Readiness readiness(nullptr);
        int calls = 0;
        const auto takeBothOut = [&](quint32) {
            ++calls;
            readiness.remove(one.watched.get());
            readiness.remove(two.watched.get());
        };
        for (const Pair *pair : {&one, &two}) {
            QVERIFY(sendByte(*pair));
            QVERIFY(readiness.add(pair->watched.get(), Readiness::Turn::Usual, takeBothOut));
            readiness.setEvents(pair->watched.get(), EPOLLIN);
        }
        QVERIFY(QTest::qWaitFor([&] { return calls > 0; }));
        QCoreApplication::processEvents();
        QCOMPARE(calls, 1);
    }

    // However many of the others are ready in the same turn.
    void givesTheFirstTheirTurnAfterEachOfTheOthers()
    {
        const Pair one = connectedPair();
        const Pair two = connectedPair();
        const Pair first = connectedPair();
        Readiness readiness(nullptr);
        QByteArray order;
        const auto take = [&order](const Pair &pair, char letter) {
            char byte = 0;
            (void)::recv(pair.watched.get(), &byte, 1, MSG_DONTWAIT);
            order.append(letter);
        };
        const auto beforeFirst = [&](const Pair &pair) {
            return [&](quint32) {
                take(pair, 'u');
                (void)sendByte(first);
            };
        };
        QVERIFY(readiness.add(one.watched.get(), Readiness::Turn::Usual, beforeFirst(one)));
        QVERIFY(readiness.add(two.watched.get(), Readiness::Turn::Usual, beforeFirst(two)));
        QVERIFY(readiness.add(first.watched.get(), Readiness::Turn::First, [&](quint32) { take(first, 'f'); }));
        QVERIFY(sendByte(one) && sendByte(two));
        for (const Pair *pair : {&one, &two, &first})
            readiness.setEvents(pair->watched.get(), EPOLLIN);
        QVERIFY(QTest::qWaitFor([&] { return order.size() == 4; }));
        QCOMPARE(order, "ufuf");
    }

    void refusesWhatCannotBeWatched()
    {
        Readiness readiness(nullptr);
        QVERIFY(!readiness.add(-1, Readiness::Turn::Usual, [](quint32) {}));
    }
};

QTEST_GUILESS_MAIN(TestReadiness)
#include "test_readiness.moc"
