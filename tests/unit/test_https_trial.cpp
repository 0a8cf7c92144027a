#include "https/Ends.h"
#include "https/Orders.h"
#include "https/Probe.h"
#include "https/Proof.h"
#include "https/Rehearsal.h"
#include "https/Settings.h"
#include "https/Sift.h"
#include "https/Store.h"

#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv;
using namespace corv::https;

namespace {

constexpr qint64 kNow = 1800000000;

} // namespace

class TestHttpsTrial : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aNameThatLedHereIsBelievedForAWhile()
    {
        const Probed miss{false, u"it has no address"_s};
        NameState name = after({}, miss, kNow);
        QVERIFY((name == NameState{false, u"it has no address"_s, kNow, kNow + 300, 1}));
        name = after(name, {true, {}}, kNow);
        QVERIFY((name == NameState{true, {}, kNow, kNow + 86400, 0}));
        name = after(name, miss, kNow);
        QVERIFY(name.leadsHere && name.nextAt == kNow + 300);
        name = after(name, miss, kNow);
        QVERIFY(name.leadsHere && name.nextAt == kNow + 600);
        name = after(name, miss, kNow);
        QVERIFY(!name.leadsHere && name.nextAt == kNow + 1200);
        for (int i = 0; i < 100; ++i)
            name = after(name, miss, kNow);
        QCOMPARE(name.nextAt, kNow + 21600);
    }

    void onlyTheTokenIsAnAnswer_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<bool>("good");
        QTest::newRow("as it is") << "HTTP/1.1 200 OK\r\nA: b\r\n\r\ntoken"_ba << true;
        QTest::newRow("a line feed behind") << "HTTP/1.1 200 OK\r\nA: b\r\n\r\ntoken\n"_ba << true;
        QTest::newRow("another status") << "HTTP/1.1 404 Not Found\r\nA: b\r\n\r\ntoken"_ba << false;
        QTest::newRow("more than it") << "HTTP/1.1 200 OK\r\nA: b\r\n\r\ntoken token"_ba << false;
        QTest::newRow("in a header") << "HTTP/1.1 200 OK\r\nA: token\r\n\r\n"_ba << false;
        QTest::newRow("no header") << "HTTP/1.1 200 OK\r\n"_ba << false;
        QTest::newRow("no HTTP") << "token"_ba << false;
        QTest::newRow("nothing") << QByteArray() << false;
    }

    void onlyTheTokenIsAnAnswer()
    {
        QFETCH(QByteArray, answer);
        QFETCH(bool, good);
        QCOMPARE(isAnswer(answer, "token"), good);
    }

    void readsWhatApacheIsAt()
    {
        const std::optional<Job> job =
            parseJob("{\"name\": \"a\", \"finished\": false, \"errors\": 2, \"last\": {\"detail\": \"why\"}}");
        QVERIFY(job && !job->finished && job->errors == 2);
        QCOMPARE(job->said, u"why"_s);
        QVERIFY(parseJob("{\"name\": \"a\", \"finished\": true}")->finished);
        QCOMPARE(
            parseJob("{\"name\": \"a\", \"errors\": 1, \"last\": {\"problem\": \"what\", \"detail\": \"\"}}")->said,
            u"what"_s);
        QCOMPARE(parseJob("{\"name\": \"a\", \"errors\": 1}")->said, u"the authority's answer cannot be used"_s);
        QCOMPARE(parseJob("{\"name\": \"a\"}")->said, QString());
        const QByteArray wordy = QByteArray("a\\u00e4").repeated(60'000);
        for (const char *key : {"detail", "problem"}) {
            QCOMPARE(
                parseJob(R"({"name": "a", "errors": 1, "last": {")" + QByteArray(key) + R"(": ")" + wordy + R"("}})")
                    ->said,
                u"a\u00e4"_s.repeated(150));
        }
        QVERIFY(!parseJob("{}"));
        QVERIFY(!parseJob("garbage"));
    }

    void readsTimesOfApache()
    {
        QCOMPARE(secondsIn(u"90s"_s), 90);
        QCOMPARE(secondsIn(u"5m"_s), 300);
        QCOMPARE(secondsIn(u"1h"_s), 3600);
        QCOMPARE(secondsIn(u"2d"_s), 172800);
    }

    void findsTheBadPartsInFewAttempts()
    {
        int attempts = 0;
        const Sifted sifted = sift(1000, [&](const QList<int> &places) {
            ++attempts;
            return places.contains(777) ? Verdict::Down : Verdict::Up;
        });
        QCOMPARE(sifted.bad, QList<int>{777});
        QCOMPARE(sifted.good.size(), 999);
        QVERIFY(!sifted.good.contains(777));
        QVERIFY(sifted.undecided.isEmpty());
        QVERIFY2(attempts <= 24, QByteArray::number(attempts).constData());
    }

    void oneAttemptIsEnoughWhereAllIsWell()
    {
        int attempts = 0;
        const auto up = [&](const QList<int> &) {
            ++attempts;
            return Verdict::Up;
        };
        QCOMPARE(sift(5, up).good, (QList<int>{0, 1, 2, 3, 4}));
        QCOMPARE(attempts, 1);
        QVERIFY(sift(0, up).verdict == Verdict::Up);
    }

    void leavesOutWhatClashesAndWhatIsBadWithoutAny()
    {
        // Two that do not go together: the first stays.
        const Sifted clash = sift(4, [](const QList<int> &places) {
            return places.contains(1) && places.contains(3) ? Verdict::Down : Verdict::Up;
        });
        QCOMPARE(clash.good, (QList<int>{0, 1, 2}));
        QCOMPARE(clash.bad, QList<int>{3});

        const Sifted none = sift(3, [](const QList<int> &) { return Verdict::Down; });
        QVERIFY(none.verdict == Verdict::Down);
        QVERIFY(none.good.isEmpty());
        QCOMPARE(none.undecided, (QList<int>{0, 1, 2}));
    }

    void whatThereIsNoTimeForIsUndecided()
    {
        int attempts = 0;
        const Sifted sifted = sift(4, [&](const QList<int> &places) {
            if (++attempts > 3)
                return Verdict::NoTime;
            return places.contains(3) ? Verdict::Down : Verdict::Up;
        });
        QCOMPARE(sifted.good, (QList<int>{0, 1}));
        QCOMPARE(sifted.undecided, (QList<int>{2, 3}));
        QVERIFY(sifted.bad.isEmpty());
    }

    void takesOnlySettingsThatAreWordsOfApache()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath(u"https.conf"_s);
        const auto read = [&](const QByteArray &text) {
            QFile file(path);
            if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
                (void)file.write(text);
            file.close();
            return readSettings(QSettings(path, QSettings::IniFormat));
        };
        const Settings none = read({});
        QVERIFY(none.probes && none.problem.isEmpty() && none.authority.directory.isEmpty());
        QCOMPARE(none.orders, 150);
        QCOMPARE(none.authority.retry, u"1h"_s);

        const Settings all =
            read("[https]\ncontact=a@b.example\nauthority=https://ca.example:14000/dir\nprobe=no\norders=3\n");
        QCOMPARE(all.authority.contact, u"a@b.example"_s);
        QCOMPARE(all.authority.directory, u"https://ca.example:14000/dir"_s);
        QVERIFY(!all.probes && all.problem.isEmpty());
        QCOMPARE(all.orders, 3);

        const Settings bad = read("[https]\nauthority=\"https://ca.example/dir\\nLoadModule x y\"\n");
        QVERIFY(bad.authority.directory.isEmpty());
        QCOMPARE(bad.problem,
                 u"https/authority in /etc/corvane/https.conf is not used: it is no value that it may have"_s);
        QVERIFY(!read("[https]\nprobe=maybe\n").problem.isEmpty());
    }

    void takesTheDirectivesWithoutTheirReasons()
    {
        QCOMPARE(tlsDirectives("# why\nSSLProtocol all\n\n  SSLCompression off\n"),
                 "    SSLProtocol all\n    SSLCompression off\n"_ba);
    }

    void findsWhatApacheComplainsOf_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<QString>("complaint");
        QTest::newRow("nothing") << QByteArray() << u"Apache does not start"_s;
        QTest::newRow("a missing certificate")
            << "[Sun Nov 22 12:17:42.33 2026] [ssl:emerg] [pid 257:tid 257] AH02562: Failed to configure certificate "
               "a:443:0\n"
               "[Sun Nov 22 12:17:42.34 2026] [:emerg] [pid 257:tid 257] AH00020: Configuration Failed, exiting\n"_ba
            << u"AH02562: Failed to configure certificate a:443:0"_s;
        QTest::newRow("a warning beside it")
            << "AH00558: apache2: Could not reliably determine the server's name\nInvalid command 'X', perhaps misspelled\n"_ba
            << u"Invalid command 'X', perhaps misspelled"_s;
    }

    void findsWhatApacheComplainsOf()
    {
        QFETCH(QByteArray, output);
        QFETCH(QString, complaint);
        QCOMPARE(complaintIn(output), complaint);
    }

    void aClockThatWasWrongByAYearKeepsNothingWaiting()
    {
        constexpr qint64 now = 1800000000;
        constexpr qint64 year = qint64{365} * 86400;
        State state;
        state.names[u"shop.example"_s] = {true, {}, now + year, now + year + 300, 1};
        state.names[u"blog.example"_s] = {true, {}, now, now + 300, 1};
        state.orders[u"shop.example"_s] = {2, u"no"_s, now + year, now + year + 3600, now + year};
        state.orders[u"blog.example"_s] = {1, u"no"_s, now - 5, now + 3600, now - 60};
        state.rescuedUntil = now + year;
        forgetFuture(&state, now);
        QCOMPARE(state.names.value(u"shop.example"_s).nextAt, 0);
        QCOMPARE(state.names.value(u"blog.example"_s).nextAt, now + 300);
        QCOMPARE(state.orders.value(u"shop.example"_s), (OrderState{2, u"no"_s, 0, 0, now}));
        QCOMPARE(state.orders.value(u"blog.example"_s), (OrderState{1, u"no"_s, now - 5, now + 3600, now - 60}));
        QCOMPARE(state.rescuedUntil, 0);
    }

    void aProofHoldsForAWhileAndForWhatItIsAProofOf()
    {
        const Proof proof{u"print"_s, 1000, 100, {}, {}};
        QVERIFY(holds(proof, u"print"_s, 100, 1000, 60));
        QVERIFY(holds(proof, u"print"_s, 100, 1059, 60));
        QVERIFY(!holds(proof, u"print"_s, 100, 1060, 60));
        QVERIFY(!holds(proof, u"print"_s, 100, 999, 60)); // the clock was put back
        QVERIFY(!holds(proof, u"other"_s, 100, 1000, 60));
        QVERIFY(holds(proof, u"print"_s, 125, 1000, 60));
        QVERIFY(!holds(proof, u"print"_s, 126, 1000, 60));
        QVERIFY(holds({u"print"_s, 1000, 1, {}, {}}, u"print"_s, 21, 1000, 60));
        QVERIFY(!holds({u"print"_s, 1000, 1, {}, {}}, u"print"_s, 22, 1000, 60));
        QVERIFY(!holds({}, u"print"_s, 0, 1000, 60));
    }

    void readsTheProofThatItWrites()
    {
        const Proof proof{u"print"_s,
                          1000,
                          3,
                          {{u"theirs.example"_s, u"mail.example"_s}, {u"*.theirs.example"_s}, true},
                          {{u"shop"_s, u"a"_s}, {u"blog"_s, u"b"_s}}};
        QCOMPARE(parseProof(proofText(proof)), proof);
        QCOMPARE(parseProof("nonsense"), Proof());
        QCOMPARE(parseProof({}), Proof());
    }

    void tellsOfAnEndOnceForEachOfItsDays_data()
    {
        QTest::addColumn<int>("life");
        QTest::addColumn<int>("left");
        QTest::addColumn<int>("days");
        QTest::newRow("a year, 31 days left") << 365 << 31 << 0;
        QTest::newRow("a year, 29 days left") << 365 << 29 << 30;
        QTest::newRow("a year, 13 days left") << 365 << 13 << 14;
        QTest::newRow("a year, 2 days left") << 365 << 2 << 3;
        QTest::newRow("past its end") << 365 << -1 << 3;
        // It is renewed with 30 days left.
        QTest::newRow("90 days, 29 left") << 90 << 29 << 0;
        QTest::newRow("90 days, 13 left") << 90 << 13 << 14;
        QTest::newRow("6 days, 1 left") << 6 << 1 << 0;
    }

    void tellsOfAnEndOnceForEachOfItsDays()
    {
        QFETCH(const int, life);
        QFETCH(const int, left);
        QFETCH(const int, days);
        constexpr qint64 now = 1800000000;
        constexpr qint64 day = 86400;
        const Certificate certificate{now + (left - life) * day, now + left * day, {}};
        QCOMPARE(warningDays(certificate, now), days);

        Candidate candidate{{u"shop"_s, u"shop.example"_s, true, false}};
        candidate.certificate = certificate;
        State state;
        QCOMPARE(newWarnings({candidate}, &state, now).size(), days == 0 ? 0 : 1);
        QCOMPARE(state.warned.value(u"shop.example"_s), days);
        QVERIFY(newWarnings({candidate}, &state, now + 60).isEmpty());
        // A new one has come.
        candidate.certificate = Certificate{now, now + 365 * day, {}};
        QVERIFY(newWarnings({candidate}, &state, now).isEmpty());
        QVERIFY(state.warned.isEmpty());
    }
};

QTEST_APPLESS_MAIN(TestHttpsTrial)
#include "test_https_trial.moc"
