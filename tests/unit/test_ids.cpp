#include "agent/hosting/Ids.h"
#include "agent/hosting/Processes.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv::hosting;

namespace {

QByteArray status(const QByteArray &name, char state, const QByteArray &ids)
{
    return "Name:\t" + name + "\nUmask:\t0022\nState:\t" + state + " (state)\nTgid:\t7\nUid:\t" + ids +
           "\nGid:\t1000\t1000\t1000\t1000\n";
}

} // namespace

class TestIds : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void knowsWhichIdsAnAccountCanHave_data()
    {
        QTest::addColumn<quint32>("id");
        QTest::addColumn<bool>("can");
        QTest::newRow("root") << 0U << false;
        QTest::newRow("the last of the system's") << 999U << false;
        QTest::newRow("the first") << 1000U << true;
        QTest::newRow("nobody") << 65534U << false;
        QTest::newRow("that of 16 bits for none") << 65535U << false;
        QTest::newRow("a large one") << 2000000000U << true;
        QTest::newRow("that of 32 bits for none") << 4294967295U << false;
    }

    void knowsWhichIdsAnAccountCanHave()
    {
        QFETCH(quint32, id);
        QTEST(isAccountId(id), "can");
    }

    void readsTheKeptIdsOffTheNamesOfTheRecords()
    {
        const FormerIds ids =
            parseFormerIds({u"corv-gone-1000.user"_s, u"corv-gone-1001.group"_s, u"1002.user"_s, u"corv-gone-0.user"_s,
                            u"corv-gone-1003.user-privileged"_s, u"corv-gone-99999999999.user"_s, u"corv-gone-x.user"_s,
                            u"corv-gone-1004.user\n"_s, u".corv-gone-1005.user.abc"_s});
        QCOMPARE(ids.users, QSet<uid_t>({1000}));
        QCOMPARE(ids.groups, QSet<gid_t>({1001}));
    }

    void writesRecordsOfOneWhoCannotLogIn()
    {
        QCOMPARE(formerUserRecord(1000),
                 QByteArray(R"({"disposition":"reserved","gid":65534,"homeDirectory":"/nonexistent","locked":true,)"
                            R"("realName":"Deleted account","shell":"/usr/sbin/nologin","uid":1000,)"
                            R"("userName":"corv-gone-1000"})"
                            "\n"));
        QCOMPARE(formerGroupRecord(1001),
                 QByteArray(R"({"disposition":"reserved","gid":1001,"groupName":"corv-gone-1001"})"
                            "\n"));
    }

    void letsIdsBeginAboveTheKeptOnes()
    {
        const QByteArray text =
            "# UID_MIN 5\nUID_MIN\t\t 1000\nUID_MAX 60000\n  GID_MIN 1000\nSYS_UID_MIN 100\nUMASK 022\n";
        QCOMPARE(loginDefsFrom(text, 1005),
                 QByteArray("# UID_MIN 5\nUID_MAX 60000\nSYS_UID_MIN 100\nUMASK 022\n\n"
                            "UID_MIN 1005\nGID_MIN 1005\nSUB_UID_COUNT 0\nSUB_GID_COUNT 0\n"));
    }

    void givesNoSubordinateIds()
    {
        QCOMPARE(loginDefsFrom("UID_MIN 1000\nSUB_UID_COUNT 65536\nSUB_GID_MIN 100000\nSUB_GID_COUNT\t65536", 0),
                 QByteArray("SUB_GID_MIN 100000\nUID_MIN 1000\nSUB_UID_COUNT 0\nSUB_GID_COUNT 0\n"));
    }

    void leavesTheGapsToUseraddWhenFewIdsAreLeft()
    {
        QVERIFY(loginDefsFrom("UID_MAX 60000\n", 59000).contains("UID_MIN 59000\n"));
        const QByteArray usual = "UID_MIN 1000\n";
        QVERIFY(loginDefsFrom(usual + "UID_MAX 60000\n", 59001).contains(usual));
        QVERIFY(loginDefsFrom(usual + "UID_MAX 60000\n", 60001).contains(usual));
        QVERIFY(loginDefsFrom(usual + "UID_MAX 2000\n", 1500).contains(usual));
        QVERIFY(loginDefsFrom("", 59000).contains("UID_MIN 59000\n"));
        QVERIFY(!loginDefsFrom("", 59001).contains("UID_MIN"));
    }

    void tellsAUsersProcessByItsStatus_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<bool>("is");
        QTest::newRow("of the user") << status("sh", 'S', "1000\t1000\t1000\t1000") << true;
        QTest::newRow("of another") << status("sh", 'S', "1001\t1001\t1001\t1001") << false;
        QTest::newRow("that root's program was started by the user") << status("su", 'S', "1000\t0\t0\t0") << true;
        QTest::newRow("that can become the user again") << status("x", 'R', "1001\t1001\t1000\t1001") << true;
        QTest::newRow("of root, acting for the user") << status("cron", 'R', "0\t1000\t0\t1000") << false;
        QTest::newRow("that ended") << status("sh", 'Z', "1000\t1000\t1000\t1000") << false;
        QTest::newRow("with a name of its choice")
            << status("x\\nState:\tZ\\nUid:\t1\t1\t1", 'S', "1000\t1000\t1000\t1000") << true;
        QTest::newRow("nothing") << QByteArray() << false;
    }

    void tellsAUsersProcessByItsStatus()
    {
        QFETCH(QByteArray, text);
        QTEST(isLivingProcessOf(1000, text.constData()), "is");
    }
};

QTEST_GUILESS_MAIN(TestIds)
#include "test_ids.moc"
