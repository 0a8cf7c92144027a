#include "ctl/offsite/Copy.h"
#include "ctl/offsite/Fetch.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;

namespace {

const QString kFirst = u"2026-11-20_031500"_s;
const QString kSecond = u"2026-11-21_031500"_s;
const QString kThird = u"2026-11-22_031500"_s;

Snapshot snapshot(const QString &tag, const QString &path, const QString &backup, const QStringList &more = {})
{
    return {u"id-"_s + backup + path, u"web1"_s, 1, QStringList{kOurTag, tag, backup} + more, path};
}

Snapshot home(const QString &account, const QString &backup, const QStringList &more = {})
{
    return snapshot(kHomeTag, u'/' + homeName(account), backup, more);
}

Snapshot rest(const QString &backup)
{
    return snapshot(kRestTag, u"/var/backups/corvane/auto/"_s + backup, backup);
}

} // namespace

// Of which night an account is fetched, and what the rules may not take of it.
class TestOffsiteNights : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aNightWithTheDatabaseComesFirst_data();
    void aNightWithTheDatabaseComesFirst();
    void whatWasPassedOverIsTold_data();
    void whatWasPassedOverIsTold();
    void theDatabasesOfEachNewestHomeAreNeeded();
    void aDatabaseThatWasNotSavedIsKnown();
};

void TestOffsiteNights::aNightWithTheDatabaseComesFirst_data()
{
    QTest::addColumn<QList<Snapshot>>("all");
    QTest::addColumn<QString>("backup");
    const QString shop = u"shop"_s;
    QTest::newRow("the newest of two") << QList{home(shop, kFirst), rest(kFirst), home(shop, kSecond), rest(kSecond)}
                                       << kSecond;
    QTest::newRow("the rest is gone") << QList{home(shop, kFirst), rest(kFirst), home(shop, kSecond)} << kFirst;
    QTest::newRow("the dump was none") << QList{home(shop, kFirst), rest(kFirst), home(shop, kSecond, {kBareTag}),
                                                rest(kSecond)}
                                       << kFirst;
    QTest::newRow("none has it") << QList{home(shop, kFirst), home(shop, kSecond, {kBareTag}), rest(kSecond)}
                                 << kSecond;
    QTest::newRow("a home in part") << QList{home(shop, kFirst), home(shop, kSecond, {kPartTag}), rest(kSecond)}
                                    << kFirst;
    QTest::newRow("homes in part") << QList{home(shop, kFirst, {kPartTag}), rest(kFirst),
                                            home(shop, kSecond, {kPartTag})}
                                   << kFirst;
}

void TestOffsiteNights::aNightWithTheDatabaseComesFirst()
{
    QFETCH(QList<Snapshot>, all);
    QFETCH(QString, backup);
    QCOMPARE(newestOf(savedOf(all, u"shop"_s, {}), {})->backup, backup);
}

void TestOffsiteNights::whatWasPassedOverIsTold_data()
{
    QTest::addColumn<QStringList>("tags");
    QTest::addColumn<QString>("date");
    QTest::addColumn<QString>("lacks");
    const QString told = u"the newer backup 2026-11-21_031500 is passed over, as it does not have "_s;
    QTest::newRow("nothing") << QStringList() << QString() << QString();
    QTest::newRow("the database") << QStringList{kBareTag} << QString() << told + u"the database"_s;
    QTest::newRow("the home") << QStringList{kPartTag} << QString() << told + u"the whole home"_s;
    QTest::newRow("both") << QStringList{kPartTag, kBareTag} << QString()
                          << told + u"the whole home and the database"_s;
    QTest::newRow("asked for") << QStringList{kBareTag} << kSecond << QString();
    QTest::newRow("not asked for") << QStringList{kBareTag} << u"2026-11-20"_s << QString();
}

void TestOffsiteNights::whatWasPassedOverIsTold()
{
    QFETCH(QStringList, tags);
    QFETCH(QString, date);
    QFETCH(QString, lacks);
    const QList<SavedHome> saved =
        savedOf({home(u"shop"_s, kFirst), rest(kFirst), home(u"shop"_s, kSecond, tags), rest(kSecond)}, u"shop"_s, {});
    QCOMPARE(passedOver(saved, date, *newestOf(saved, date)), lacks);
}

void TestOffsiteNights::theDatabasesOfEachNewestHomeAreNeeded()
{
    Snapshot elsewhere = home(u"news"_s, kFirst);
    elsewhere.server = u"web2"_s;
    Snapshot restElsewhere = rest(kFirst);
    restElsewhere.server = u"web2"_s;
    const QList<Snapshot> all = {home(u"gone"_s, kFirst),
                                 elsewhere,
                                 restElsewhere,
                                 home(u"gone"_s, kSecond),
                                 rest(kSecond),
                                 home(u"shop"_s, kThird),
                                 home(u"blog"_s, kThird),
                                 home(u"bare"_s, kThird, {kBareTag}),
                                 rest(kThird)};
    QCOMPARE(backupsInNeed(all, u"web1"_s), QStringList({kSecond, kThird}));
    QCOMPARE(backupsInNeed(all, u"web2"_s), QStringList({kFirst}));
    QCOMPARE(backupsInNeed(all, u"web3"_s), QStringList());
    // What fetching would fall back on is needed, and not what lies there beside it.
    QCOMPARE(backupsInNeed({home(u"gone"_s, kFirst), rest(kFirst), home(u"gone"_s, kSecond), rest(kThird)}, u"web1"_s),
             QStringList({kFirst}));
}

void TestOffsiteNights::aDatabaseThatWasNotSavedIsKnown()
{
    QTemporaryDir folder;
    QVERIFY(QDir(folder.path()).mkdir(u"accounts"_s));
    for (const char *name : {"/accounts/shop-db.dump", "/accounts/blog-db.dump"}) {
        QFile file(folder.path() + QString::fromLatin1(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
    }
    const QJsonObject manifest = {
        {u"errors"_s, QJsonArray{u"shop files: tar: took too long"_s, u"blog database: pg_dump failed: x"_s}}};
    QVERIFY(!isWithoutDatabase(manifest, folder.path(), u"shop"_s));
    QVERIFY(isWithoutDatabase(manifest, folder.path(), u"blog"_s));
    QVERIFY(isWithoutDatabase(manifest, folder.path(), u"news"_s));
    QVERIFY(!isWithoutDatabase({}, folder.path(), u"blog"_s));
}

QTEST_GUILESS_MAIN(TestOffsiteNights)
#include "test_offsite_nights.moc"
