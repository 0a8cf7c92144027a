#include "agent/Budget.h"

#include <QList>
#include <QTest>

using namespace corv;

namespace {

constexpr qint64 kBytes = 100;
constexpr quint32 kPanel = 990;

} // namespace

class TestBudget : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void letsTheFirstOfAUserGoOverIt()
    {
        Budget budget(kBytes);
        const quint64 first = budget.enter(kPanel, [] {});
        const quint64 second = budget.enter(kPanel, [] {});
        QVERIFY(budget.ask(first, kBytes + 1));
        budget.hold(first, kBytes + 1);
        QVERIFY(!budget.ask(second, 1));
        QVERIFY(budget.ask(first, 2 * kBytes));
        QCOMPARE(budget.used(), kBytes + 1);
    }

    void letsRootNeverWait()
    {
        Budget budget(kBytes);
        budget.hold(budget.enter(0, [] {}), kBytes);
        QVERIFY(budget.ask(budget.enter(0, [] {}), kBytes));
    }

    void takesExactlyWhatThereIs()
    {
        Budget budget(kBytes);
        (void)budget.enter(kPanel, [] {});
        const quint64 client = budget.enter(kPanel, [] {});
        QVERIFY(budget.ask(client, kBytes));
        QVERIFY(!budget.ask(client, kBytes + 1));
    }

    // Whoever is in front holds up those behind, also when they would fit.
    void servesTheLineInOrder()
    {
        Budget budget(kBytes);
        QList<int> served;
        const quint64 holder = budget.enter(kPanel, [] {});
        const quint64 big = budget.enter(kPanel, [&] { served.append(1); });
        const quint64 small = budget.enter(kPanel, [&] { served.append(2); });
        budget.hold(holder, kBytes);
        QVERIFY(!budget.ask(big, kBytes));
        QVERIFY(!budget.ask(small, 1));

        budget.hold(holder, 1);
        QCOMPARE(served, QList<int>());
        budget.hold(holder, 0);
        QCOMPARE(served, QList<int>({1}));
        QVERIFY(budget.ask(big, kBytes));
        budget.hold(big, kBytes - 1);
        QCOMPARE(served, QList<int>({1, 2}));
        QCOMPARE(budget.used(), kBytes);
    }

    // What it holds already is part of what it asks for.
    void countsWhatIsHeldOnceWhenMoreIsGiven()
    {
        Budget budget(kBytes);
        (void)budget.enter(kPanel, [] {});
        bool served = false;
        const quint64 client = budget.enter(kPanel, [&] { served = true; });
        const quint64 root = budget.enter(0, [] {});
        budget.hold(client, 40);
        budget.hold(root, 60);
        QVERIFY(!budget.ask(client, 60));
        budget.hold(root, 41);
        QVERIFY(!served);
        budget.hold(root, 40);
        QVERIFY(served);
        QCOMPARE(budget.used(), kBytes);
    }

    void letsOneThatWasServedWaitAgain()
    {
        Budget budget(kBytes);
        (void)budget.enter(kPanel, [] {});
        int served = 0;
        const quint64 client = budget.enter(kPanel, [&] { ++served; });
        const quint64 root = budget.enter(0, [] {});
        for (int round = 1; round <= 2; ++round) {
            budget.hold(root, kBytes);
            QVERIFY(!budget.ask(client, 1));
            budget.hold(root, 0);
            QCOMPARE(served, round);
            budget.hold(client, 0);
        }
    }

    void makesTheNextOneTheFirstWhenThatHasGone()
    {
        Budget budget(kBytes);
        bool served = false;
        const quint64 first = budget.enter(kPanel, [] {});
        const quint64 second = budget.enter(kPanel, [&] { served = true; });
        budget.hold(budget.enter(0, [] {}), kBytes);
        QVERIFY(!budget.ask(second, 1));
        budget.leave(first);
        QVERIFY(served);
        QVERIFY(budget.ask(second, kBytes));
    }

    void takesBackAllThatAClientHeldThatHasGone()
    {
        Budget budget(kBytes);
        (void)budget.enter(kPanel, [] {});
        const quint64 second = budget.enter(kPanel, [] {});
        bool served = false;
        const quint64 third = budget.enter(kPanel, [&] { served = true; });
        const quint64 fourth = budget.enter(kPanel, [] { QFAIL("it has gone"); });
        QCOMPARE(budget.clientsOf(kPanel), 4);
        budget.hold(second, kBytes);
        QVERIFY(!budget.ask(fourth, 1));
        QVERIFY(!budget.ask(third, 1));
        budget.leave(fourth);
        budget.leave(second);
        QVERIFY(served);
        QCOMPARE(budget.used(), 1);
        QCOMPARE(budget.clientsOf(kPanel), 2);
        QCOMPARE(budget.clientsOf(0), 0);
    }
};

QTEST_APPLESS_MAIN(TestBudget)
#include "test_budget.moc"
