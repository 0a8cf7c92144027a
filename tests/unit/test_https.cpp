#include "common/Certificate.h"
#include "common/HttpsOptions.h"
#include "common/HttpsState.h"
#include "common/Site.h"
#include "ctl/doctor/Https.h"
#include "ctl/https/Apache.h"
#include "ctl/https/Own.h"
#include "ctl/https/View.h"
#include "https/Names.h"
#include "https/Orders.h"
#include "https/Probe.h"
#include "https/Recognise.h"
#include "https/Rehearsal.h"
#include "https/Settings.h"
#include "https/Sift.h"
#include "https/Twin.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv;
using namespace corv::https;

namespace {

QByteArray siteText(bool php, bool suspended)
{
    return hosting::vhost(u"shop"_s, u"shop.example"_s, php, suspended).toUtf8();
}

// The state in which these names lead here.
State leadingHere(const QStringList &names)
{
    State state;
    for (const QString &name : names)
        state.names[name].leadsHere = true;
    return state;
}

Candidate candidate(const QString &account, const QString &domain)
{
    return {{account, domain, true, false}};
}

constexpr qint64 kNow = 1800000000;

} // namespace

class TestHttps : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void recognisesEachSiteOfTheAgent()
    {
        QVERIFY(
            (recognise(u"shop"_s, siteText(true, false)) == AccountSite{u"shop"_s, u"shop.example"_s, true, false}));
        QVERIFY(
            (recognise(u"shop"_s, siteText(false, false)) == AccountSite{u"shop"_s, u"shop.example"_s, false, false}));
        QVERIFY(
            (recognise(u"shop"_s, siteText(false, true)) == AccountSite{u"shop"_s, u"shop.example"_s, false, true}));
    }

    void recognisesNothingElse_data()
    {
        QTest::addColumn<QString>("account");
        QTest::addColumn<QByteArray>("text");
        const QByteArray good = siteText(true, false);
        const auto changed = [&](const char *before, const char *after) {
            return QByteArray(good).replace(before, after);
        };
        QTest::newRow("empty") << u"shop"_s << QByteArray();
        QTest::newRow("another account's") << u"shop2"_s << good;
        QTest::newRow("a name that is none") << u"shop-le-ssl"_s << good;
        QTest::newRow("cut off") << u"shop"_s << good.chopped(1);
        QTest::newRow("a line more") << u"shop"_s << good + "# mine\n";
        QTest::newRow("a blank at an end") << u"shop"_s << changed("corv\n", "corv \n");
        QTest::newRow("carriage returns") << u"shop"_s << changed("\n", "\r\n");
        QTest::newRow("another port") << u"shop"_s << changed(":80>", ":8080>");
        QTest::newRow("another folder") << u"shop"_s << changed("/home/shop/", "/home/other/");
        QTest::newRow("two names") << u"shop"_s
                                   << changed("ServerName shop.example", "ServerName shop.example evil.example");
        QTest::newRow("a directive more")
            << u"shop"_s << changed("    DocumentRoot", "    SSLEngine on\n    DocumentRoot");
        QTest::newRow("upper case") << u"shop"_s << changed("shop.example", "Shop.example");
        QTest::newRow("a NUL") << u"shop"_s
                               << changed("AllowOverride", QByteArray("Allow\0Override", 14).constData()) + '\0';
        QTest::newRow("a domain that is none") << u"shop"_s << changed("shop.example", "shop");
        QTest::newRow("a wildcard") << u"shop"_s << changed("shop.example", "*.example");
    }

    void recognisesNothingElse()
    {
        QFETCH(QString, account);
        QFETCH(QByteArray, text);
        QVERIFY(!recognise(account, text));
    }

    void aTwinHasTheBodyOfItsSite()
    {
        Twin twin{{u"shop"_s, u"shop.example"_s, true, false}};
        QCOMPARE(twinText(twin, "    SSLProtocol +TLSv1.3\n"),
                 "# shop\n"
                 "<MDomainSet shop.example www.shop.example>\n"
                 "    MDMembers manual\n"
                 "    MDRenewMode manual\n"
                 "</MDomainSet>\n"
                 "<VirtualHost *:443>\n"
                 "    ServerName shop.example\n"
                 "    ServerAlias www.shop.example\n"
                 "    DocumentRoot /home/shop/public_html\n"
                 "    ErrorLog ${APACHE_LOG_DIR}/shop.example-error.log\n"
                 "    CustomLog ${APACHE_LOG_DIR}/shop.example-access.log corv\n"
                 "    DirectoryIndex index.php index.html\n"
                 "    <Directory /home/shop/public_html>\n"
                 "        Options -Indexes +SymLinksIfOwnerMatch\n"
                 "        AllowOverride All\n"
                 "        Require all granted\n"
                 "    </Directory>\n"
                 "    <FilesMatch \"\\.php$\">\n"
                 "        SetHandler \"proxy:unix:/run/php/corv-shop.sock|fcgi://localhost\"\n"
                 "    </FilesMatch>\n"
                 "    SSLEngine on\n"
                 "    Protocols h2 http/1.1 acme-tls/1\n"
                 "    SSLProtocol +TLSv1.3\n"
                 "</VirtualHost>\n"_ba);
    }

    void aSuspendedTwinSaysSoAndSendsNobodyAway()
    {
        Twin twin{{u"shop"_s, u"shop.example"_s, false, true}};
        twin.www = false;
        twin.renews = true;
        twin.certified = true;
        twin.options.redirect = true;
        QCOMPARE(twinText(twin, {}), "# shop\n"
                                     "<MDomainSet shop.example>\n"
                                     "    MDMembers manual\n"
                                     "</MDomainSet>\n"
                                     "<VirtualHost *:443>\n"
                                     "    ServerName shop.example\n"
                                     "    DocumentRoot /home/shop/public_html\n"
                                     "    ErrorLog ${APACHE_LOG_DIR}/shop.example-error.log\n"
                                     "    CustomLog ${APACHE_LOG_DIR}/shop.example-access.log corv\n"
                                     "    RewriteEngine On\n"
                                     "    RewriteRule ^ - [R=503,L]\n"
                                     "    ErrorDocument 503 \"This site is temporarily unavailable.\"\n"
                                     "    SSLEngine on\n"
                                     "    Protocols h2 http/1.1 acme-tls/1\n"
                                     "</VirtualHost>\n"_ba);
    }

    void aTwinDoesWhatWasChosenOnceItHasACertificate()
    {
        Twin twin{{u"shop"_s, u"shop.example"_s, true, false}};
        twin.options.redirect = true;
        twin.options.hsts = true;
        QVERIFY(!twinText(twin, {}).contains("MDRequireHttps"));
        QVERIFY(!twinText(twin, {}).contains("Strict-Transport-Security"));
        twin.certified = true;
        QVERIFY(twinText(twin, {}).contains("\n    MDRequireHttps temporary\n"));
        QVERIFY(
            twinText(twin, {}).contains("\n    Header always set Strict-Transport-Security \"max-age=63072000\"\n"));
    }

    void aTwinUsesACertificateThatWasBrought()
    {
        Twin twin{{u"shop"_s, u"shop.example"_s, true, false}};
        twin.options.own = u"shop-"_s + QString(64, u'0');
        const QByteArray text = twinText(twin, {});
        const QByteArray path = "/etc/corvane/https/own/shop-" + QByteArray(64, '0');
        QVERIFY(text.contains("    MDCertificateFile " + path + ".crt\n    MDCertificateKeyFile " + path + ".key\n"));
        // A missing file that this one names would stop all that the agent does.
        QVERIFY(!text.contains("SSLCertificate"));
    }

    void theBaseAnswersForNamesOfNobodyWhereNoneOfOthersDoes()
    {
        const Authority authority{{}, {}, {}, {}, u"1h"_s, u"33%"_s, u"1h"_s};
        QVERIFY(baseText(authority, true, {}).contains("    ServerName corvane.invalid\n"));
        QVERIFY(!baseText(authority, false, {}).contains("VirtualHost"));
        QVERIFY(!baseText(authority, true, {}).contains("MDContactEmail"));
        const Authority own{u"https://ca.example/dir"_s,
                            u"/etc/ca.pem"_s,
                            u"a@b.example"_s,
                            u"/etc/eab"_s,
                            u"5m"_s,
                            u"10d"_s,
                            u"30m"_s};
        const QByteArray text = baseText(own, false, {});
        for (const char *line : {"MDCertificateAuthority https://ca.example/dir\n", "MDCACertificateFile /etc/ca.pem\n",
                                 "MDContactEmail a@b.example\n", "MDExternalAccountBinding /etc/eab\n",
                                 "MDRetryDelay 5m\n", "MDRenewWindow 10d\n", "MDCheckInterval 30m\n"})
            QVERIFY2(text.contains(line), line);
    }

    void readsWhoElseIsOnThePort()
    {
        const QByteArray output = R"(VirtualHost configuration:
*:80                   is a NameVirtualHost
         default server web1.test (/etc/apache2/sites-enabled/000-default.conf:1)
         port 80 namevhost web1.test (/etc/apache2/sites-enabled/000-default.conf:1)
         port 80 namevhost plain.test (/etc/apache2/sites-enabled/plain.conf:1)
                 alias www.plain.test
*:443                  is a NameVirtualHost
         default server Foreign.test (/etc/apache2/sites-enabled/foreign.conf:1)
         port 443 namevhost Foreign.test (/etc/apache2/sites-enabled/foreign.conf:1)
                 alias a.foreign.test
                 wild alias *.w.test
         port 443 namevhost corvane.invalid (/run/corvane/https/trial.conf:13)
                 alias ours.test
192.0.2.1:443          alone.test (/etc/apache2/sites-enabled/alone.conf:1)
)";
        const Others others = parseVhosts(output, u"/run/corvane/https/trial.conf"_s);
        const Others expected{{u"foreign.test"_s, u"a.foreign.test"_s, u"alone.test"_s}, {u"*.w.test"_s}, true};
        QVERIFY(others == expected);
        QVERIFY(isTaken(others, u"foreign.test"_s));
        QVERIFY(isTaken(others, u"deep.down.w.test"_s));
        QVERIFY(!isTaken(others, u"w.test"_s));
        QVERIFY(!isTaken(others, u"plain.test"_s));
        QVERIFY(parseVhosts({}, u"/x"_s) == Others());
    }

    void asksForCertificatesOfNamesThatLeadHereAlone()
    {
        const QList<Candidate> sites{candidate(u"shop"_s, u"shop.example"_s)};
        const State unseen;
        QVERIFY(plan(sites, {}, unseen, kNow, 9).twins.first().www);
        QVERIFY(!plan(sites, {}, unseen, kNow, 9).twins.first().renews);

        State state = leadingHere({u"shop.example"_s, u"www.shop.example"_s});
        QVERIFY(plan(sites, {}, state, kNow, 9).twins.first().renews);
        state.orders[u"shop.example"_s].nextAt = kNow + 1;
        QVERIFY(!plan(sites, {}, state, kNow, 9).twins.first().renews);
        QVERIFY(plan(sites, {}, state, kNow + 1, 9).twins.first().renews);

        state.names[u"www.shop.example"_s] = {false, u"leads elsewhere"_s, 0, 0, 1};
        const Plan without = plan(sites, {}, state, kNow + 1, 9);
        QVERIFY(without.twins.first().renews);
        QCOMPARE(namesOf(without.twins.first()), QStringList{u"shop.example"_s});
        QCOMPARE(without.sites.value(u"shop"_s).withoutWww, u"leads elsewhere"_s);

        state.names[u"shop.example"_s].leadsHere = false;
        QVERIFY(!plan(sites, {}, state, kNow + 1, 9).twins.first().renews);
    }

    void aNameBelongsToTheFirstThatHasIt()
    {
        const Candidate first = candidate(u"aaa"_s, u"shop.example"_s);
        const Candidate second = candidate(u"bbb"_s, u"shop.example"_s);
        const Candidate theirs = candidate(u"ccc"_s, u"taken.example"_s);
        const Candidate halfTheirs = candidate(u"ddd"_s, u"half.example"_s);
        Candidate off = candidate(u"eee"_s, u"off.example"_s);
        off.options.off = true;
        Candidate unclear = candidate(u"fff"_s, u"unclear.example"_s);
        unclear.optionsAreClear = false;
        const Others others{{u"taken.example"_s, u"www.half.example"_s}, {}, true};
        const Plan planned = plan({first, second, theirs, halfTheirs, off, unclear}, others, {}, kNow, 9);

        QCOMPARE(planned.twins.size(), 2);
        QCOMPARE(planned.twins.at(0).site.account, u"aaa"_s);
        QCOMPARE(namesOf(planned.twins.at(1)), QStringList{u"half.example"_s});
        QCOMPARE(planned.sites.value(u"aaa"_s).leftOut, QString());
        QCOMPARE(planned.sites.value(u"bbb"_s).leftOut, u"shop.example belongs to aaa"_s);
        QCOMPARE(planned.sites.value(u"ccc"_s).leftOut, u"another site has taken.example on port 443"_s);
        QCOMPARE(planned.sites.value(u"ddd"_s).withoutWww, u"another site has www.half.example on port 443"_s);
        QCOMPARE(planned.sites.value(u"eee"_s).leftOut, u"switched off"_s);
        QCOMPARE(planned.sites.value(u"fff"_s).leftOut, u"/etc/corvane/https.d/fff cannot be read"_s);
    }

    void noMoreFirstCertificatesAreAskedForThanThereIsRoom()
    {
        const QList<Candidate> sites{candidate(u"aaa"_s, u"a.example"_s), candidate(u"bbb"_s, u"b.example"_s),
                                     candidate(u"ccc"_s, u"c.example"_s)};
        State state = leadingHere({u"a.example"_s, u"www.a.example"_s, u"b.example"_s, u"www.b.example"_s,
                                   u"c.example"_s, u"www.c.example"_s});
        state.orders[u"a.example"_s].startedAt = kNow - 60;
        const auto renewing = [&](int room) {
            QStringList domains;
            for (const Twin &twin : plan(sites, {}, state, kNow, room).twins) {
                if (twin.renews)
                    domains.append(twin.site.domain);
            }
            return domains;
        };
        // One that was begun goes on.
        QCOMPARE(renewing(0), QStringList{u"a.example"_s});
        QCOMPARE(renewing(1), (QStringList{u"a.example"_s, u"b.example"_s}));
        QCOMPARE(renewing(2), (QStringList{u"a.example"_s, u"b.example"_s, u"c.example"_s}));
        QCOMPARE(roomForOrders(state, 150, kNow), 149);
        QCOMPARE(roomForOrders(state, 1, kNow), 0);
        QCOMPARE(roomForOrders(state, 0, kNow), 0);
        QCOMPARE(roomForOrders(state, 1, kNow + 3 * 3600), 1);
    }

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

    void readsTheChoicesThatItWrites_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<bool>("clear");
        QTest::newRow("empty") << QByteArray() << true;
        QTest::newRow("all") << "off\nredirect\nhsts\nno-www\nown shop-" + QByteArray(64, 'a') + '\n' << true;
        QTest::newRow("a comment") << QByteArray("# mine\n\n redirect \n") << true;
        QTest::newRow("another word") << QByteArray("redirect\nofff\n") << false;
        QTest::newRow("a path out") << "own ../../" + QByteArray(64, 'a') + '\n' << false;
        QTest::newRow("too short a print") << "own shop-" + QByteArray(63, 'a') + '\n' << false;
        QTest::newRow("a directive") << "own shop-" + QByteArray(64, 'a') + " x\n" << false;
    }

    void readsTheChoicesThatItWrites()
    {
        QFETCH(QByteArray, text);
        QFETCH(bool, clear);
        const std::optional<SiteOptions> options = parseOptions(text);
        QCOMPARE(options.has_value(), clear);
        if (options)
            QVERIFY(parseOptions(optionsText(*options)) == options);
    }

    void readsTheStateThatItWrites()
    {
        State state;
        state.sites[u"shop"_s] = {u"shop.example"_s, {u"shop.example"_s}, u"a"_s, u"b"_s, u"c"_s, 5};
        state.names[u"shop.example"_s] = {true, u"d"_s, 1, 2, 3};
        state.orders[u"shop.example"_s] = {4, u"e"_s, 5, 6, 7};
        state.none = u"f"_s;
        state.rescues = 2;
        state.rescuedUntil = kNow;
        state.rehearsed = false;
        state.milliseconds = 8;
        state.rehearsals = 9;
        state.at = 10;
        QVERIFY(parseState(stateText(state)) == state);
        QVERIFY(parseState("no JSON") == State());
        QVERIFY(parseState({}) == State());
    }

    void readsACertificate()
    {
        QFile file(u"data/certificate.pem"_s);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray pem = file.readAll();
        const std::optional<Certificate> certificate = parseCertificate(pem);
        QVERIFY(certificate);
        QCOMPARE(certificate->begins, 1767225600);
        QCOMPARE(certificate->ends, 1798761600);
        QCOMPARE(certificate->names, (QStringList{u"shop.example"_s, u"www.shop.example"_s}));
        QCOMPARE(certificate->issuer, u"Example CA"_s);

        // Cut off or changed anywhere, it is another or none, and nothing is read beyond its end.
        const QByteArray der = QByteArray::fromBase64(pem.mid(28, pem.indexOf("-----END") - 28));
        const auto asPem = [](const QByteArray &bytes) {
            return "-----BEGIN CERTIFICATE-----\n" + bytes.toBase64() + "\n-----END CERTIFICATE-----\n";
        };
        QVERIFY(parseCertificate(asPem(der)));
        for (qsizetype size = 0; size < der.size(); ++size)
            QVERIFY2(!parseCertificate(asPem(der.first(size))), QByteArray::number(size).constData());
        for (qsizetype place = 0; place < der.size(); ++place) {
            QByteArray other = der;
            other[place] = static_cast<char>(~other.at(place));
            (void)parseCertificate(asPem(other)); // the sanitizers look at it
        }
        QVERIFY(!parseCertificate("garbage"));
        QVERIFY(!parseCertificate({}));
    }

    void judgesHowFarASiteIs_data()
    {
        QTest::addColumn<qint64>("daysGone");
        QTest::addColumn<QString>("word");
        QTest::addColumn<QString>("remark");
        // Of ninety days, Apache renews when thirty are left.
        QTest::newRow("fresh") << qint64{0} << u"served"_s << QString();
        QTest::newRow("to be renewed") << qint64{61} << u"served"_s << QString();
        QTest::newRow("should have been renewed") << qint64{81} << u"ending"_s << u"the authority is away"_s;
        QTest::newRow("past its end") << qint64{90} << u"expired"_s << u"the authority is away"_s;
        QTest::newRow("before its begin") << qint64{-1} << u"expired"_s << u"the authority is away"_s;
    }

    void judgesHowFarASiteIs()
    {
        QFETCH(qint64, daysGone);
        QFETCH(QString, word);
        QFETCH(QString, remark);
        constexpr qint64 day = 86400;
        State state = leadingHere({u"shop.example"_s});
        state.sites[u"shop"_s] = {u"shop.example"_s, {u"shop.example"_s}, {}, {}, {}, 0};
        state.orders[u"shop.example"_s] = {1, u"the authority is away"_s, 1, 2, 0};
        const Certificate certificate{kNow - daysGone * day, kNow + (90 - daysGone) * day, {}, {}};
        const ctl::HttpsSite site = ctl::judgeSite(u"shop"_s, state, {}, certificate, kNow);
        QCOMPARE(ctl::stageWord(site.stage), word);
        QCOMPARE(site.remark, remark);
        QCOMPARE(site.ends, certificate.ends);
    }

    void theDoctorTellsWhatIsWrongWithHttps()
    {
        State state;
        state.sites[u"bad"_s].refused = u"print"_s;
        QList<ctl::HttpsSite> sites;
        const auto add = [&](const QString &account, ctl::HttpsSite::Stage stage) {
            sites.append({account, account + u".example"_s, {}, stage, u"why"_s, 0, false});
        };
        using Stage = ctl::HttpsSite::Stage;
        add(u"good"_s, Stage::Served);
        add(u"off"_s, Stage::Off);
        add(u"bad"_s, Stage::LeftOut);
        add(u"theirs"_s, Stage::LeftOut);
        add(u"new"_s, Stage::Waiting);
        add(u"late"_s, Stage::Ending);
        add(u"old"_s, Stage::Expired);
        QStringList told;
        for (const ctl::Finding &finding : ctl::checkHttps(state, sites))
            told.append((finding.level == ctl::Level::Fault ? u"fault "_s : u"note "_s) + finding.problem);
        const QStringList expected{u"fault bad.example is not on HTTPS: why"_s,
                                   u"note theirs.example is not on HTTPS: why"_s,
                                   u"note new.example has no certificate yet: why"_s,
                                   u"fault the certificate of late.example ends soon: why"_s,
                                   u"fault the certificate of old.example is not good at this time: why"_s};
        QCOMPARE(told, expected);
        QVERIFY(ctl::checkHttps({}, {}).isEmpty());
        state.rehearsed = false;
        QCOMPARE(ctl::checkHttps(state, {}).size(), 1);
        state.none = u"why"_s;
        QCOMPARE(ctl::checkHttps(state, sites).first().problem, u"no account's site is on HTTPS: why"_s);
    }

    void aStarCoversOneLabel()
    {
        QVERIFY(ctl::coversName({u"a.example"_s}, u"a.example"_s));
        QVERIFY(ctl::coversName({u"*.example"_s}, u"a.example"_s));
        QVERIFY(!ctl::coversName({u"*.example"_s}, u"www.a.example"_s));
        QVERIFY(!ctl::coversName({u"*.example"_s}, u"example"_s));
        QVERIFY(!ctl::coversName({}, u"a.example"_s));
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
};

QTEST_GUILESS_MAIN(TestHttps)
#include "test_https.moc"
