#include "ctl/doctor/PhpPools.h"
#include "ctl/php/Follow.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;

namespace {

PhpPools pools(const QString &version, const QStringList &live, const QStringList &parked, bool isInstalled = true)
{
    return {version, isInstalled, live, parked, {}, true};
}

QStringList told(const QList<StrayPool> &strays)
{
    QStringList texts;
    for (const StrayPool &stray : strays)
        texts.append(u"%1 %2 %3"_s.arg(stray.version, stray.account, stray.isParked ? u"back"_s : u"aside"_s));
    return texts;
}

} // namespace

class TestPhp : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void takesNumbersOfVersionsAlone_data()
    {
        QTest::addColumn<QString>("word");
        QTest::addColumn<bool>("expected");
        QTest::newRow("one") << u"8.2"_s << true;
        QTest::newRow("two digits") << u"10.12"_s << true;
        QTest::newRow("nothing") << QString() << false;
        QTest::newRow("one number") << u"8"_s << false;
        QTest::newRow("three numbers") << u"8.2.1"_s << false;
        QTest::newRow("too long") << u"123.4"_s << false;
        QTest::newRow("a line feed behind") << u"8.2\n"_s << false;
        QTest::newRow("a folder") << u"../8.2"_s << false;
        QTest::newRow("an option") << u"-8.2"_s << false;
    }
    void takesNumbersOfVersionsAlone()
    {
        QFETCH(QString, word);
        QTEST(isPhpVersion(word), "expected");
    }

    void strayPoolsAreThoseThatTheSiteAsksToBeElsewhere()
    {
        const QList<PhpPools> versions = {pools(u"8.1"_s, {}, {u"eve"_s}),
                                          pools(u"8.2"_s, {u"alice"_s, u"bob"_s, u"eve"_s}, {u"carol"_s, u"dave"_s}),
                                          pools(u"8.4"_s, {u"frank"_s, u"grace"_s}, {})};
        const QHash<QString, PoolState> wanted = {
            {u"alice"_s, PoolState::Parked}, {u"bob"_s, PoolState::Live}, {u"carol"_s, PoolState::Live},
            {u"dave"_s, PoolState::Any},     {u"eve"_s, PoolState::Live}, {u"frank"_s, PoolState::Parked},
        };
        // Eve is served by 8.2 already, and what is in force is the agent's own affair.
        QCOMPARE(told(strayPools(versions, u"8.4"_s, wanted)),
                 QStringList({u"8.2 alice aside"_s, u"8.2 carol back"_s}));
        QCOMPARE(told(strayPools(versions, {}, wanted)),
                 QStringList({u"8.2 alice aside"_s, u"8.2 carol back"_s, u"8.4 frank aside"_s}));
        QCOMPARE(strayPools(versions, u"8.2"_s, {}).size(), 0);
    }

    void theDoctorTellsOfPoolsElsewhere()
    {
        QCOMPARE(checkPhpPools({pools(u"8.2"_s, {}, {}), pools(u"8.4"_s, {u"alice"_s}, {})}, u"8.4"_s, {}).size(), 0);

        QList<Finding> found =
            checkPhpPools({pools(u"8.2"_s, {u"alice"_s}, {u"bob"_s}), pools(u"8.4"_s, {}, {})}, u"8.4"_s, {});
        QCOMPARE(found.size(), 1);
        QCOMPARE(found[0].level, Level::Note);
        QCOMPARE(found[0].problem, u"alice, bob run PHP 8.2; new accounts get PHP 8.4"_s);
        QCOMPARE(found[0].mend, u"corvctl php move 8.2 8.4 --confirm 8.4"_s);

        found = checkPhpPools({pools(u"8.2"_s, {}, {u"bob"_s}, false), pools(u"8.4"_s, {}, {})}, u"8.4"_s,
                              {u"8.2"_s, u"8.4"_s});
        QCOMPARE(found.size(), 2);
        QCOMPARE(found[0].level, Level::Fault);
        QCOMPARE(found[0].problem, u"a move of the accounts from PHP 8.2 to 8.4 was cut off"_s);
        QCOMPARE(found[0].mend, u"corvctl php move 8.2 8.4 --confirm 8.4"_s);
        QCOMPARE(found[1].level, Level::Fault);
        QCOMPARE(found[1].problem, u"PHP 8.2 is not installed any more, but has the pools of bob"_s);
        QCOMPARE(found[1].mend, u"corvctl php move 8.2 8.4 --confirm 8.4"_s);

        // Who is served where he belongs has a second pool, which is told of with the account.
        found = checkPhpPools({pools(u"8.2"_s, {u"alice"_s}, {}), pools(u"8.4"_s, {u"alice"_s}, {})}, u"8.4"_s, {});
        QCOMPARE(found.size(), 0);

        found = checkPhpPools({pools(u"8.4"_s, {u"alice"_s}, {}, false)}, u"8.4"_s, {});
        QCOMPARE(found.size(), 1);
        QCOMPARE(found[0].mend, u"apt-get install -y php8.4-fpm"_s);
    }
};

QTEST_GUILESS_MAIN(TestPhp)
#include "test_php.moc"
