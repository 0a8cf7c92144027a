#include "ctl/commands/MoveText.h"
#include "ctl/move/Listing.h"
#include "ctl/move/Plan.h"
#include "ctl/move/Pull.h"
#include "ctl/move/Room.h"
#include "ctl/move/Rows.h"
#include "ctl/move/There.h"
#include "ctl/move/Verdict.h"

#include <QTest>

#include <limits>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;
using namespace corv::ctl::moving;

namespace {

constexpr qint64 kGibibyte = 1'073'741'824;

There account()
{
    There there;
    there.state.username = u"shop"_s;
    there.state.domain = u"shop.example"_s;
    there.state.uid = 1003;
    there.state.shell = u"/bin/bash"_s;
    there.state.role = u"SCRAM"_s;
    there.state.database = KeptDatabase{u"UTF8"_s, u"C.UTF-8"_s, u"C.UTF-8"_s};
    there.state.php = QStringList{u"8.2"_s};
    there.databaseBytes = kGibibyte;
    there.postgres = 15;
    there.homeBytes = 10 * kGibibyte;
    there.homeEntries = 1000;
    there.hasRsync = true;
    return there;
}

Here server()
{
    Here here;
    here.postgres = 15;
    here.database = {u"UTF8"_s, u"C.UTF-8"_s, u"C.UTF-8"_s};
    here.php = u"8.2"_s;
    here.hasRsync = true;
    here.hasShell = true;
    here.homeFree = 11 * kGibibyte;
    here.homeInodes = 1100;
    here.databaseFree = 3 * kGibibyte;
    return here;
}

// HTTPS on both, with a certificate there.
void secure(There &there, Here &here)
{
    there.https.isOn = true;
    there.https.options = corv::https::SiteOptions();
    there.https.certificate = corv::Certificate{1, 4'102'444'800, {u"shop.example"_s}};
    here.hasHttps = true;
}

// What is not well, as "About: text" behind "note" or "way".
QStringList worse(const There &there, const Here &here)
{
    QStringList found;
    for (const Check &check : checksOf(there, here)) {
        if (check.level != Check::Level::Well)
            found.append(
                u"%1 %2: %3"_s.arg(check.level == Check::Level::Told ? u"note"_s : u"way"_s, check.about, check.text));
    }
    return found;
}

// A record of a listing, with the NUL behind it.
QByteArray listed(const QByteArray &text)
{
    return text + '\0';
}

using Change = void (*)(There &, Here &);

} // namespace

class TestMove : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void nothingIsInTheWayBetweenServersThatAreAlike()
    {
        QCOMPARE(worse(account(), server()), QStringList());
    }

    void aCertificateThatComesAlongIsWell()
    {
        There there = account();
        Here here = server();
        secure(there, here);
        QCOMPARE(worse(there, here), QStringList());
        const auto text = [&] {
            for (const Check &check : checksOf(there, here)) {
                if (check.about == u"HTTPS"_s)
                    return check.text;
            }
            return QString();
        };
        QCOMPARE(text(), u"its certificate comes along, good until 2100-01-01"_s);
        there.https.options->off = true;
        here.hasHttps = false;
        QCOMPARE(worse(there, here), QStringList());
        QCOMPARE(text(), u"switched off there"_s);
    }

    void whatWasChosenForHttpsThereIsReadLikeAFileHere()
    {
        QVERIFY(!parseHttpsThere({}).isOn);
        QCOMPARE(parseHttpsThere({}).options, corv::https::SiteOptions());
        QVERIFY(parseHttpsThere("on\n").isOn);
        const HttpsThere chosen = parseHttpsThere("on\n# x\nredirect\nno-www\n");
        QVERIFY(chosen.isOn && chosen.options->redirect && chosen.options->noWww && !chosen.options->hsts);
        // What is no choice here may not become a part of a path.
        QVERIFY(!parseHttpsThere("on\nown ../../etc/passwd\n").options);
        QVERIFY(!parseHttpsThere("only\n").isOn);
    }

    void aDatabaseIsAsItWasOnlyWhereNobodyIsListedAnyMore()
    {
        QCOMPARE(writtenIn("listed 0\nwritten 42\n", true), 42);
        QCOMPARE(writtenIn("listed 1\nwritten 42\n", true), std::nullopt);
        QCOMPARE(writtenIn("listed 1\nwritten 42\n", false), 42);
        QCOMPARE(writtenIn("written 42\n", true), std::nullopt);
        QCOMPARE(writtenIn("listed 0\nwritten \n", true), std::nullopt);
        QCOMPARE(writtenIn("listed 0\nwritten 4x\n", false), std::nullopt);
        QCOMPARE(writtenIn("psql: no\n", false), std::nullopt);
    }

    void twoCertificatesAreTheSameByTheirFirstBlocks()
    {
        const QByteArray one = "x\n-----BEGIN CERTIFICATE-----\nAA\nBB\n-----END CERTIFICATE-----\n";
        QCOMPARE(firstBlock(one, "CERTIFICATE"), QByteArray("AABB"));
        QCOMPARE(firstBlock(one + one, "CERTIFICATE"), QByteArray("AABB"));
        QCOMPARE(firstBlock(one.chopped(8), "CERTIFICATE"), QByteArray());
        QCOMPARE(firstBlock("", "CERTIFICATE"), QByteArray());
    }

    void eachDifferenceIsTold_data()
    {
        QTest::addColumn<Change>("change");
        QTest::addColumn<QString>("told");
        const auto row = [](const char *name, Change change, const QString &told) {
            QTest::newRow(name) << change << told;
        };
        row(
            "name",
            [](There &, Here &here) {
                here.inTheWay = {u"a"_s, u"b"_s};
            },
            u"way Account: a; b"_s);
        row(
            "domain", [](There &, Here &here) { here.domainHolder = u"the site x"_s; },
            u"way Domain: the site x here answers to shop.example already"_s);
        row(
            "no domain", [](There &there, Here &) { there.state.domain.clear(); },
            u"way Domain: its user's comment there tells none that is valid"_s);
        row(
            "bad domain", [](There &there, Here &) { there.state.domain = u"shop.example\n"_s; },
            u"way Domain: its user's comment there tells none that is valid"_s);
        row(
            "sites beside", [](There &there, Here &) { there.sitesBeside = QStringList{u"tls"_s}; },
            u"note Domain: shop.example; sites beside its own stay behind: tls"_s);
        row(
            "role", [](There &there, Here &) { there.state.role.reset(); },
            u"way State: its role could not be read there: its database's password would be lost"_s);
        row(
            "too much", [](There &there, Here &) { there.state.leftOut = QStringList{u"crontab"_s}; },
            u"note State: too much to come along whole: crontab"_s);
        row(
            "uid", [](There &, Here &here) { here.uidHolder = u"blog"_s; },
            u"note User id: 1003 there, which is that of blog here: it gets another one"_s);
        row(
            "certificate",
            [](There &there, Here &here) {
                secure(there, here);
                there.https.certificate.reset();
            },
            u"note HTTPS: no certificate there that is good: one is ordered when its names lead here"_s);
        row(
            "ended certificate",
            [](There &there, Here &here) {
                secure(there, here);
                there.https.certificate->ends = 1;
            },
            u"note HTTPS: no certificate there that is good: one is ordered when its names lead here"_s);
        row(
            "https off here",
            [](There &there, Here &here) {
                secure(there, here);
                here.hasHttps = false;
            },
            u"note HTTPS: on there and off here: who comes by HTTPS finds nothing before corvctl https on"_s);
        row(
            "https choices",
            [](There &there, Here &here) {
                secure(there, here);
                there.https.options.reset();
            },
            u"note HTTPS: what was chosen for it cannot be read there, and does not come along"_s);
        row(
            "shell", [](There &, Here &here) { here.hasShell = false; },
            u"note Login: /bin/bash there, which is not here: it gets that of new accounts"_s);
        row(
            "older", [](There &there, Here &) { there.postgres = 17; },
            u"way PostgreSQL: 17 there, 15 here: a dump does not load into an older one"_s);
        row(
            "newer", [](There &, Here &here) { here.postgres = 17; }, u"note PostgreSQL: 15 there, 17 here"_s);
        row(
            "not told", [](There &there, Here &) { there.postgres = 0; },
            u"way PostgreSQL: the version there was not told"_s);
        row(
            "no database", [](There &there, Here &) { there.state.database.reset(); },
            u"way PostgreSQL: 15 there, 15 here; it has no database there"_s);
        row(
            "locale", [](There &, Here &here) { here.database.collate = u"C"_s; },
            u"note PostgreSQL: 15 there, 15 here; its database is UTF8, C.UTF-8, C.UTF-8 there and will be UTF8, C, "
            "C.UTF-8"_s);
        row(
            "PHP", [](There &, Here &here) { here.php = u"8.4"_s; }, u"note PHP: 8.2 there, 8.4 here"_s);
        row(
            "no PHP", [](There &, Here &here) { here.php.clear(); }, u"way PHP: 8.2 there, none here"_s);
        row(
            "files", [](There &there, Here &) { ++there.homeBytes; },
            QString()); // the tenth of it is rounded down, and so one byte more than there is
        row(
            "inodes", [](There &, Here &here) { here.homeInodes = 1099; },
            u"way Room: 1000 files and folders, of 1099 that the disk here still takes"_s);
        row(
            "not measured", [](There &there, Here &) { there.homeEntries = -1; },
            u"way Room: its home could not be measured there"_s);
        row(
            "limit", [](There &there, Here &) { there.state.limitMb = 1024; },
            u"note Limit: 1.0 GiB there; quotas are off here, so that it is lost"_s);
        row(
            "rsync there", [](There &there, Here &) { there.hasRsync = false; },
            u"way rsync: is not installed there: apt-get install rsync"_s);
        row(
            "rsync nowhere", [](There &there, Here &here) { there.hasRsync = here.hasRsync = false; },
            u"way rsync: is not installed there and here: apt-get install rsync"_s);
    }
    void eachDifferenceIsTold()
    {
        QFETCH(Change, change);
        QFETCH(QString, told);
        There there = account();
        Here here = server();
        change(there, here);
        if (told.isEmpty())
            QVERIFY(worse(there, here).value(0).startsWith("way Room: files: "_L1));
        else
            QCOMPARE(worse(there, here), QStringList{told});
    }

    void oneDiskHasToTakeBoth()
    {
        Here here = server();
        here.isOneDisk = true;
        QCOMPARE(worse(account(), here).size(), 1);
        QVERIFY(worse(account(), here)[0].startsWith("way Room: files and two copies of the database: "_L1));
        here.homeFree = 14 * kGibibyte;
        here.databaseFree = 0;
        QCOMPARE(worse(account(), here), QStringList());
    }

    void whatHasALimitKeepsItWhereQuotasAreOn()
    {
        There there = account();
        there.state.limitMb = 1024;
        Here here = server();
        here.hasQuotas = true;
        QCOMPARE(worse(there, here), QStringList());
    }

    void measuresAreRead()
    {
        There there;
        addMeasures("postgres 150013\nbytes 4096\t/home/shop\nentries 7\t/home/shop\nrsync /usr/bin/rsync\n", &there);
        QCOMPARE(there.postgres, 15);
        QCOMPARE(there.homeBytes, 4096);
        QCOMPARE(there.homeEntries, 7);
        QVERIFY(there.hasRsync);
    }

    void whatIsNoMeasureIsNotTold()
    {
        There there;
        addMeasures("postgres\nbytes x\nentries -7\nrsync\n\nother 1\n", &there);
        QCOMPARE(there.postgres, 0);
        QCOMPARE(there.homeBytes, -1);
        QCOMPARE(there.homeEntries, -1);
        QVERIFY(!there.hasRsync);
    }

    void aListingIsRead()
    {
        const auto entries =
            parseListing(listed("d 2750 www-data public_html") + listed("f 640 shop public_html/a b\n c") +
                         listed("l 777 www-data link") + listed("p 600 shop pipe") + listed("whole"));
        QVERIFY(entries);
        QCOMPARE(entries->size(), 4);
        const ArchiveEntry &folder = entries->at(0);
        QCOMPARE(folder.path, QByteArray("public_html"));
        QCOMPARE(folder.mode, mode_t(02750));
        QVERIFY(folder.isFolder && folder.isPlain && folder.isWebs && !folder.isLink);
        const ArchiveEntry &file = entries->at(1);
        QCOMPARE(file.path, QByteArray("public_html/a b\n c"));
        QVERIFY(!file.isFolder && file.isPlain && !file.isWebs && !file.isLink);
        QVERIFY(entries->at(2).isLink && entries->at(2).isWebs && !entries->at(2).isPlain);
        QVERIFY(!entries->at(3).isPlain && !entries->at(3).isLink);
    }

    void aListingWithoutItsEndIsNone()
    {
        QVERIFY(parseListing(listed("whole")));
        QVERIFY(!parseListing({}));
        QVERIFY(!parseListing(listed("f 640 shop a")));
        QVERIFY(!parseListing(listed("f 640 shop a") + "whole"));
        QVERIFY(!parseListing(listed("whole") + "f"));
    }

    void whatLeadsOutOfAHomeIsNotListed_data()
    {
        QTest::addColumn<QByteArray>("record");
        for (const char *record :
             {"f 640 shop ../other", "f 640 shop a/../../b", "f 640 shop /etc/passwd", "f 640 shop a//b", "f 640 shop ",
              "f 640 shop .", "f 89 shop a", "f 17777 shop a", "f -1 shop a", "f 640 a"})
            QTest::newRow(record) << QByteArray(record);
    }
    void whatLeadsOutOfAHomeIsNotListed()
    {
        QFETCH(QByteArray, record);
        const auto entries = parseListing(listed(record) + listed("whole"));
        QVERIFY(entries);
        QCOMPARE(entries->size(), 0);
    }

    void onlyWhatRsyncItselfWouldRunGoesToTheOtherShell_data()
    {
        QTest::addColumn<QStringList>("words");
        QTest::addColumn<bool>("isIt");
        const QStringList good = {u"rsync"_s,         u"--server"_s, u"--sender"_s,   u"-lHogDtpAXre.iLsfxCIvu"_s,
                                  u"--timeout=120"_s, u"."_s,        u"/home/shop/"_s};
        QTest::newRow("as it is") << good << true;
        QTest::newRow("none") << QStringList() << false;
        QTest::newRow("another home") << good.mid(0, 6) + QStringList{u"/home/other/"_s} << false;
        QTest::newRow("a receiver") << good.mid(0, 2) + good.mid(3) << false;
        QTest::newRow("more than a word") << good.mid(0, 4) + QStringList{u"a;reboot"_s} + good.mid(5) << false;
        QTest::newRow("a line feed") << good.mid(0, 4) + QStringList{u"a\n"_s} + good.mid(5) << false;
        QTest::newRow("another program") << QStringList{u"/tmp/rsync"_s} + good.mid(1) << false;
    }
    void onlyWhatRsyncItselfWouldRunGoesToTheOtherShell()
    {
        QFETCH(QStringList, words);
        QFETCH(bool, isIt);
        QCOMPARE(isSenderCommand(words, u"/home/shop"_s), isIt);
    }

    // What is told of may come, and half of what remains then; a twentieth stays, whatever is told.
    void anotherServerDoesNotFillADisk()
    {
        QCOMPARE(leastLeft({1000, 100}, 0, 0), (Left{500, 50}));
        QCOMPARE(leastLeft({1000, 100}, 400, 20), (Left{300, 40}));
        QCOMPARE(leastLeft({1000, 100}, 1000, 100), (Left{50, 5}));
        QCOMPARE(leastLeft({1000, 100}, qint64(1) << 61, qint64(1) << 61), (Left{50, 5}));
        QCOMPARE(leastLeft({1000, 100}, -1, -1), (Left{500, 50}));
        QCOMPARE(leastLeft({1000, std::numeric_limits<qint64>::max()}, 0, 7), (Left{500, 0}));
        QCOMPARE(leastLeft({0, 0}, 5, 5), (Left{0, 0}));
    }

    void aDiskThatCannotBeAskedDoesNotHoldUpWhatComes()
    {
        QVERIFY(Room(u"/"_s, 0, 0).isThere());
        QVERIFY(Room(u"/nowhere"_s, 0, 0).isThere());
    }

    // Told that it is not moved, an administrator would put it on-line where it was, beside the one that has it.
    void whoHasAnAccountIsNotToldByALostAnswer()
    {
        Record record;
        record.account = u"shop"_s;
        record.host = u"web1"_s;
        Moved done;
        done.problem = u"web1: Broken pipe"_s;
        done.timer = 120;
        QCOMPARE(endOf(record, done).sentence, u"shop is not moved: web1: Broken pipe"_s);
        done.isBack = false;
        QCOMPARE(endOf(record, done).sentence, u"whether shop has moved is not known: web1: Broken pipe"_s);
        QCOMPARE(endOf(record, done).hint,
                 u"corvctl account move shop web1 asks; where it was not decided web1 takes it back on-line by itself, "
                 "120 s after the switch began"_s);
        done.isDecided = true;
        QCOMPARE(endOf(record, done).sentence, u"shop is this server's now, but not all is done: web1: Broken pipe"_s);
    }

    // A load goes on past what fails, so that a table may be there without its rows.
    void rowsThatWereNotLoadedAreMissed()
    {
        const QMap<QByteArray, qint64> dumped = {{"public.a", 3}, {"public.b", 2}};
        QStringList uncounted;
        QCOMPARE(missingBy("0|3\n1|2\n", dumped, &uncounted), QString());
        QCOMPARE(missingBy("0|4\n1|2\n", dumped, &uncounted), QString());
        QVERIFY(uncounted.isEmpty());
        QCOMPARE(missingBy("0|3\n1|1\n", dumped, &uncounted),
                 u"the dump has 2 rows of the table public.b, of which 1 were restored"_s);
        QCOMPARE(missingBy("0|0\n1|2\n", dumped, &uncounted),
                 u"the dump has 3 rows of the table public.a, of which 0 were restored"_s);
        QVERIFY(uncounted.isEmpty());
    }

    void aTableThatIsNotCountedIsTold()
    {
        const QMap<QByteArray, qint64> dumped = {{"public.\"a\n b\"", 3}, {"public.b", 2}, {"public.c", 0}};
        for (const QByteArray &printed :
             {QByteArray("1|2\n"), QByteArray("x|3\n1|2\n2|\n"), QByteArray("1|2"), QByteArray("0\n1|2\n")}) {
            QStringList uncounted;
            QCOMPARE(missingBy(printed, dumped, &uncounted), QString());
            QCOMPARE(uncounted, (QStringList{u"public.\"a b\""_s, u"public.c"_s}));
        }
        QStringList uncounted;
        QCOMPARE(missingBy("1|1\n", dumped, &uncounted),
                 u"the dump has 2 rows of the table public.b, of which 1 were restored"_s);
    }

    void eachTableIsCountedByItselfAndNothingLasts()
    {
        const QByteArray odd = "public.\"b' \\ c\"";
        const QByteArray relaxing = "SELECT format('ALTER TABLE %s NO FORCE ROW LEVEL SECURITY', oid::regclass) "
                                    "FROM pg_class WHERE relforcerowsecurity AND oid = ";
        QCOMPARE(countingScript({{"public.a", 3}, {odd, 2}}),
                 "\\set ON_ERROR_ROLLBACK on\nBEGIN;\n" + relaxing +
                     "E'public.\"b'' \\\\ c\"'::regclass \\gexec\nSELECT 0, count(*) FROM ONLY " + odd +
                     ";\nROLLBACK;\nBEGIN;\n" + relaxing +
                     "E'public.a'::regclass \\gexec\nSELECT 1, count(*) FROM ONLY public.a;\nROLLBACK;\n");
    }
};

QTEST_GUILESS_MAIN(TestMove)
#include "test_move.moc"
