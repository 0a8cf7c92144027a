#include "common/HttpsOptions.h"
#include "common/HttpsState.h"
#include "common/Site.h"
#include "https/Names.h"
#include "https/Orders.h"
#include "https/Recognise.h"
#include "https/Twin.h"

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
                 "    ErrorLogFormat \"[%{u}t] [%-m:%l] [pid %P:tid %{g}T] %E: [client\\ %a] %M% ,\\ referer\\ "
                 "%{Referer}i\"\n"
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
                                     "    ErrorLogFormat \"[%{u}t] [%-m:%l] [pid %P:tid %{g}T] %E: [client\\ %a] %M% "
                                     ",\\ referer\\ %{Referer}i\"\n"
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

    void aSiteThatMovedHereKeepsTheNamesOfItsCertificateUntilItsNamesFollow()
    {
        Candidate moved = candidate(u"shop"_s, u"shop.example"_s);
        moved.certified = true;
        moved.certificate = Certificate{1, kNow + 1, {u"shop.example"_s, u"www.shop.example"_s}};
        const QStringList both{u"shop.example"_s, u"www.shop.example"_s};
        State state;
        for (const QString &name : both)
            state.names[name] = {false, u"leads elsewhere"_s, 0, 0, 1};
        const auto served = [&state](const Candidate &site) {
            return namesOf(plan({site}, {}, state, kNow, 9).twins.first());
        };
        QCOMPARE(served(moved), both);
        QVERIFY(!plan({moved}, {}, state, kNow, 9).twins.first().renews);

        moved.certificate->names = {u"shop.example"_s, u"*.shop.example"_s};
        QCOMPARE(served(moved), both);
        moved.certificate->names = {u"shop.example"_s};
        QCOMPARE(served(moved), QStringList{u"shop.example"_s});
        moved.certificate->names = both;
        moved.certified = false;
        QCOMPARE(served(moved), QStringList{u"shop.example"_s});

        // What is here and has lost its www name is renewed without it.
        moved.certified = true;
        state.names[u"shop.example"_s].leadsHere = true;
        QCOMPARE(served(moved), QStringList{u"shop.example"_s});
        QVERIFY(plan({moved}, {}, state, kNow, 9).twins.first().renews);
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
        // Another attempt after one that failed is an order, too.
        state.orders[u"a.example"_s].nextAt = kNow - 1;
        QCOMPARE(renewing(0), QStringList());
        QCOMPARE(renewing(1), QStringList{u"a.example"_s});
        state.orders[u"a.example"_s].nextAt = 0;
        QCOMPARE(roomForOrders(state, 1, kNow), 0);
        QCOMPARE(roomForOrders(state, 0, kNow), 0);
        QCOMPARE(roomForOrders(state, 1, kNow + qint64{3} * 3600), 1);
    }
};

QTEST_APPLESS_MAIN(TestHttps)
#include "test_https.moc"
