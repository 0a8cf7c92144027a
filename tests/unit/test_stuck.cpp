#include "common/Stuck.h"

#include <QFile>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv;

class TestStuck : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void whatWasKilledAndWaitsForADiskIsStuck_data()
    {
        QTest::addColumn<QByteArray>("status");
        QTest::addColumn<bool>("isStuck");
        QTest::newRow("killed by itself")
            << QByteArray("Name:\tstat\nState:\tD (disk sleep)\nSigPnd:\t0000000000000100\nShdPnd:\t0000000000000000\n")
            << true;
        QTest::newRow("killed with its group")
            << QByteArray("Name:\tstat\nState:\tD (disk sleep)\nSigPnd:\t0000000000000000\nShdPnd:\t0000000000004100\n")
            << true;
        QTest::newRow("not killed")
            << QByteArray("Name:\tstat\nState:\tD (disk sleep)\nSigPnd:\t0000000000000000\nShdPnd:\t0000000000004000\n")
            << false;
        QTest::newRow("about to end")
            << QByteArray("Name:\tstat\nState:\tR (running)\nSigPnd:\t0000000000000100\nShdPnd:\t0000000000000000\n")
            << false;
        QTest::newRow("a name that says otherwise")
            << QByteArray("Name:\tState: D\nState:\tS (sleeping)\nSigPnd:\t0000000000000100\n") << false;
        QTest::newRow("the end of another")
            << QByteArray("State:\tD (disk sleep)\nSigBlk:\t0000000000000100\nSigPnd:\tnone\n") << false;
        QTest::newRow("gone") << QByteArray() << false;
    }

    void whatWasKilledAndWaitsForADiskIsStuck()
    {
        QFETCH(QByteArray, status);
        QTEST(isKilledButStuck(status), "isStuck");
    }

    void whoeverIsWellStaysWhereHeIs()
    {
        QFile group(u"/proc/self/cgroup"_s);
        QVERIFY(group.open(QIODevice::ReadOnly));
        const QByteArray before = group.readAll();
        leaveStuck();
        QVERIFY(group.seek(0));
        QCOMPARE(group.readAll(), before);
    }
};

QTEST_GUILESS_MAIN(TestStuck)
#include "test_stuck.moc"
