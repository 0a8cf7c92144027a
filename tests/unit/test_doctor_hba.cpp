#include "ctl/doctor/Hba.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;

class TestDoctorHba : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void replacesTheLinesThatLetEveryRoleTryEveryDatabase()
    {
        const QByteArray text = "# local all all peer\n"
                                "local all postgres peer\n"
                                "local\tall all   peer map=x # ours\n"
                                "host all all 127.0.0.1/32 scram-sha-256\n"
                                "local replication all peer\n";
        const QList<HbaChange> changes =
            hbaChanges(text, {{u"wiki"_s, {u"wiki"_s, u"Odd Name"_s}}, {u"open"_s, {}}, {u"a\"b"_s, {}}});
        QCOMPARE(withChanges(text, changes),
                 "# local all all peer\n"
                 "local all postgres peer\n"
                 "# before corvctl database harden: local\tall all   peer map=x # ours\n"
                 "local   all postgres peer map=x # ours\n"
                 "local   all +corv_restore peer map=x # ours\n"
                 "local   samerole all peer map=x # ours\n"
                 "local   postgres +pg_monitor peer map=x # ours\n"
                 "local   \"wiki\" \"wiki\",\"Odd Name\" peer map=x # ours\n"
                 "local   \"open\" all peer map=x # ours\n"
                 "# before corvctl database harden: host all all 127.0.0.1/32 scram-sha-256\n"
                 "host    all postgres 127.0.0.1/32 scram-sha-256\n"
                 "host    samerole all 127.0.0.1/32 scram-sha-256\n"
                 "host    postgres +pg_monitor 127.0.0.1/32 scram-sha-256\n"
                 "host    \"wiki\" \"wiki\",\"Odd Name\" 127.0.0.1/32 scram-sha-256\n"
                 "host    \"open\" all 127.0.0.1/32 scram-sha-256\n"
                 "local replication all peer\n");
    }

    void leavesLinesThatLetNobodyThrough_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("reject") << QByteArray("local all all reject");
        QTest::newRow("reject from anywhere") << QByteArray("host all all 0.0.0.0/0 reject");
        QTest::newRow("one role") << QByteArray("local all postgres peer");
        QTest::newRow("one database") << QByteArray("local wiki all peer");
        QTest::newRow("own databases") << QByteArray("local samerole all peer");
        QTest::newRow("comment") << QByteArray("# local all all peer");
        QTest::newRow("no method") << QByteArray("local all all");
        QTest::newRow("nothing") << QByteArray();
    }
    void leavesLinesThatLetNobodyThrough()
    {
        QFETCH(QByteArray, line);
        QVERIFY(hbaChanges(line, {}).isEmpty());
    }

    void changesNothingTwice()
    {
        const QByteArray text = "local all all peer\nhost all all ::1/128 md5\n";
        const QByteArray once = withChanges(text, hbaChanges(text, {}));
        QVERIFY(once != text);
        QVERIFY(hbaChanges(once, {}).isEmpty());
    }

    void readsWhoMayLogInToWhat()
    {
        const std::optional<HbaFacts> facts = parseHbaFacts(
            R"({"file":"/etc/hba","databases":[{"name":"alice","owner":"alice","open":false,"roles":["alice"]},)"
            R"({"name":"corvane","owner":"corv-web","open":false,"roles":["corv-web"]},)"
            R"({"name":"wiki","owner":"wiki","open":true,"roles":["alice","wiki"]},)"
            R"({"name":"locked","owner":"postgres","open":false,"roles":[]}]})");
        QVERIFY(facts.has_value());
        QCOMPARE(facts->file, u"/etc/hba"_s);
        QCOMPARE(facts->others.size(), 2);
        QCOMPARE(facts->others[0].database, u"corvane"_s);
        QCOMPARE(facts->others[0].roles, QStringList{u"corv-web"_s});
        QCOMPARE(facts->others[1].database, u"wiki"_s);
        QCOMPARE(facts->others[1].roles, QStringList());
    }

    void takesNoOtherAnswer_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("no databases") << QByteArray(R"({"file":"/etc/hba"})");
        QTest::newRow("no path") << QByteArray(R"({"file":"hba","databases":[]})");
    }
    void takesNoOtherAnswer()
    {
        QFETCH(QByteArray, answer);
        QVERIFY(!parseHbaFacts(answer).has_value());
    }
};

QTEST_APPLESS_MAIN(TestDoctorHba)

#include "test_doctor_hba.moc"
