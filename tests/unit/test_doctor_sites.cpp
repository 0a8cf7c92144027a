#include "common/Fd.h"
#include "common/Site.h"
#include "ctl/doctor/SiteAddresses.h"
#include "ctl/doctor/Sites.h"
#include "ctl/doctor/Visitors.h"
#include "ctl/doctor/Visits.h"
#include "mend_of.h"

#include <QTest>

#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv;
using namespace corv::ctl;

namespace {

// One line of text for each finding, so that a whole list is compared at once.
QStringList asText(const QList<Finding> &findings)
{
    QStringList lines;
    for (const Finding &finding : findings)
        lines.append(u"%1|%2|%3"_s.arg(finding.level == Level::Fault ? u"fault"_s : u"note"_s, finding.problem,
                                       mendOf(finding)));
    return lines;
}

QList<VirtualHost> siteOf(const QString &account, const QString &domain, bool suspended = false)
{
    return parseSite(hosting::siteName(account), hosting::vhost(account, domain, true, suspended).toUtf8());
}

const QByteArray kEncrypted = R"(<IfModule mod_ssl.c>
<virtualhost *:443>
    servername Example.org
    SERVERALIAS www.example.org \
        "shop.example.org"
    # ServerAlias not.example.org
    DocumentRoot "/home/alice/public_html"
    ErrorLog /home/logger/x.log
    SSLEngine on
    SSLCertificateFile /etc/letsencrypt/live/example.org/fullchain.pem
</VirtualHost>
</IfModule>
ServerName outside.example.org
)";

// A server that gives each connection one answer, and may then leave it open.
class Server
{
public:
    Server(const QByteArray &answer, bool closes) : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        (void)::bind(m_socket.get(), reinterpret_cast<sockaddr *>(&address), length);
        (void)::listen(m_socket.get(), 100);
        (void)::getsockname(m_socket.get(), reinterpret_cast<sockaddr *>(&address), &length);
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this, answer, closes] { serve(answer, closes); });
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;
    Server(Server &&) = delete;
    Server &operator=(Server &&) = delete;
    ~Server()
    {
        ::shutdown(m_socket.get(), SHUT_RDWR);
        m_thread.join();
    }
    [[nodiscard]] int port() const
    {
        return m_port;
    }
    QByteArray request;

private:
    void serve(const QByteArray &answer, bool closes)
    {
        std::vector<Fd> open;
        for (;;) {
            Fd visitor(::accept(m_socket.get(), nullptr, nullptr));
            if (!visitor)
                return;
            QByteArray got;
            char buffer[1000];
            while (!got.contains("\r\n\r\n")) {
                const ssize_t count = ::recv(visitor.get(), buffer, sizeof buffer, 0);
                if (count <= 0)
                    break;
                got.append(buffer, count);
            }
            request = got;
            (void)::send(visitor.get(), answer.constData(), static_cast<size_t>(answer.size()), MSG_NOSIGNAL);
            if (!closes)
                open.push_back(std::move(visitor));
        }
    }

    Fd m_socket;
    int m_port = 0;
    std::thread m_thread;
};

// "STATUS own/other asked late problem"
QString described(const Visited &visited)
{
    const QString page = visited.isServersOwnPage ? u"own"_s : visited.isSuspensions ? u"suspension's"_s : u"other"_s;
    return u"%1 %2 %3 %4 %5"_s.arg(visited.status)
        .arg(page, visited.wasAsked ? u"asked"_s : u"not"_s, visited.isLate ? u"late"_s : u"-"_s, visited.problem)
        .trimmed();
}

const QByteArray kApaches = "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/html\r\n\r\n"
                            "<!DOCTYPE HTML PUBLIC \"-//IETF//DTD HTML 2.0//EN\">\n<html><head>\n"
                            "<title>503 Service Unavailable</title>\n";

} // namespace

class TestDoctorSites : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsTheAgentsOwnSite()
    {
        const QList<VirtualHost> hosts = siteOf(u"alice"_s, u"example.org"_s);
        QCOMPARE(hosts.size(), 1);
        QCOMPARE(hosts[0].site, u"corv-alice"_s);
        QCOMPARE(hosts[0].listens, QStringList{u"*:80"_s});
        QCOMPARE(hosts[0].names, (QStringList{u"example.org"_s, u"www.example.org"_s}));
        QCOMPARE(hosts[0].accounts, QStringList{u"alice"_s});
        QCOMPARE(hosts[0].isEncrypted, false);
        QCOMPARE(hosts[0].certificate, QString());
    }

    void readsDirectivesAsApacheDoes()
    {
        const QList<VirtualHost> hosts = parseSite(u"x"_s, kEncrypted);
        QCOMPARE(hosts.size(), 1);
        QCOMPARE(hosts[0].listens, QStringList{u"*:443"_s});
        QCOMPARE(hosts[0].names, (QStringList{u"example.org"_s, u"www.example.org"_s, u"shop.example.org"_s}));
        QCOMPARE(hosts[0].accounts, QStringList{u"alice"_s});
        QCOMPARE(hosts[0].isEncrypted, true);
        QCOMPARE(hosts[0].certificate, u"/etc/letsencrypt/live/example.org/fullchain.pem"_s);
    }

    void readsWhereAHostListens_data()
    {
        QTest::addColumn<QByteArray>("opening");
        QTest::addColumn<QStringList>("listens");
        QTest::newRow("without port") << QByteArray("*") << QStringList{u"*:80"_s, u"*:443"_s};
        QTest::newRow("each port") << QByteArray("192.0.2.1:*") << QStringList{u"192.0.2.1:80"_s, u"192.0.2.1:443"_s};
        QTest::newRow("default") << QByteArray("_default_:80") << QStringList{u"*:80"_s};
        QTest::newRow("two") << QByteArray("192.0.2.1:8080 [2001:db8::1]:8080")
                             << QStringList{u"192.0.2.1:8080"_s, u"[2001:db8::1]:8080"_s};
        QTest::newRow("IPv6 without port") << QByteArray("[::1]") << QStringList{u"[::1]:80"_s, u"[::1]:443"_s};
    }
    void readsWhereAHostListens()
    {
        QFETCH(QByteArray, opening);
        QFETCH(QStringList, listens);
        QCOMPARE(parseSite(u"x"_s, "<VirtualHost " + opening + ">\n</VirtualHost>\n").value(0).listens, listens);
    }

    void readsNamesWithoutSchemeAndPort()
    {
        const QByteArray text =
            "<VirtualHost *:80>\nServerAlias b.example\nServerName https://A.example:8443\n</VirtualHost>";
        QCOMPARE(parseSite(u"x"_s, text).value(0).names, (QStringList{u"a.example"_s, u"b.example"_s}));
    }

    void takesNoMoreHostsThanAnyServerHas()
    {
        QCOMPARE(parseSite(u"x"_s, QByteArray("<VirtualHost *>\n</VirtualHost>\n").repeated(1001)).size(), 1000);
        QCOMPARE(parseSite(u"x"_s, "<VirtualHost *>\nServerName cut.example\n").size(), 0);
    }

    void matchesPatternsAsApacheDoes_data()
    {
        QTest::addColumn<QString>("pattern");
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("answers");
        QTest::newRow("itself") << u"a.example"_s << u"a.example"_s << true;
        QTest::newRow("another") << u"a.example"_s << u"b.example"_s << false;
        QTest::newRow("longer") << u"a.example"_s << u"a.example.org"_s << false;
        QTest::newRow("star") << u"*.example"_s << u"www.a.example"_s << true;
        QTest::newRow("star and not the bare name") << u"*.example"_s << u"example"_s << false;
        QTest::newRow("star at the end") << u"a.*"_s << u"a."_s << true;
        QTest::newRow("question mark") << u"?.example"_s << u"a.example"_s << true;
        QTest::newRow("question mark and two") << u"?.example"_s << u"ab.example"_s << false;
        QTest::newRow("many stars") << u"*a*b*c*"_s << QString(2000, u'a') << false;
        QTest::newRow("brackets are letters") << u"[ab].example"_s << u"a.example"_s << false;
    }
    void matchesPatternsAsApacheDoes()
    {
        QFETCH(QString, pattern);
        QFETCH(QString, name);
        VirtualHost host;
        host.names = {pattern};
        QTEST(answersTo(host, name), "answers");
    }

    void tellsWhoHoldsADomain_data()
    {
        QTest::addColumn<QString>("domain");
        QTest::addColumn<QString>("account");
        QTest::addColumn<QString>("holder");
        QTest::newRow("free") << u"free.example"_s << u"bobby"_s << QString();
        QTest::newRow("an account's") << u"example.org"_s << u"bobby"_s << u"corv-alice"_s;
        QTest::newRow("its own") << u"example.org"_s << u"alice"_s << QString();
        QTest::newRow("its www. form") << u"other.example"_s << u"bobby"_s << u"by-hand"_s;
        QTest::newRow("by a pattern") << u"x.wild.example"_s << u"bobby"_s << u"by-hand"_s;
    }
    void tellsWhoHoldsADomain()
    {
        QFETCH(QString, domain);
        QFETCH(QString, account);
        const QList<VirtualHost> hosts =
            siteOf(u"alice"_s, u"example.org"_s) +
            parseSite(u"by-hand"_s,
                      "<VirtualHost *:80>\nServerName www.other.example\nServerAlias *.wild.example\n</VirtualHost>");
        const std::optional<VirtualHost> holder = holderOf(hosts, domain, account);
        QTEST(holder ? holder->site : QString(), "holder");
    }

    void findsNothingWithSitesOfTheirOwn()
    {
        const QList<VirtualHost> hosts =
            parseSite(u"000-default"_s, "<VirtualHost *:80>\nDocumentRoot /var/www/html\n</VirtualHost>") +
            siteOf(u"alice"_s, u"example.org"_s) + siteOf(u"bobby"_s, u"example.net"_s, true);
        QCOMPARE(asText(checkSites(hosts, {{u"alice"_s, u"example.org"_s, false}, {u"bobby"_s, u"example.net"_s, true}},
                                   {u"alice"_s, u"bobby"_s})),
                 QStringList());
    }

    void findsNamesThatTwoSitesAnswerTo()
    {
        const QList<VirtualHost> hosts = siteOf(u"alice"_s, u"example.org"_s) + siteOf(u"bobby"_s, u"example.org"_s);
        QCOMPARE(
            asText(checkSites(hosts, {{u"alice"_s, u"example.org"_s, false}, {u"bobby"_s, u"example.org"_s, false}},
                              {u"alice"_s, u"bobby"_s})),
            QStringList{u"fault|the sites corv-alice and corv-bobby both answer to example.org, www.example.org; "
                        "visitors get those of corv-alice|grep -inE 'Server(Name|Alias)' "
                        "/etc/apache2/sites-enabled/corv-alice.conf /etc/apache2/sites-enabled/corv-bobby.conf"_s});
    }

    void findsANameBehindAPatternThatComesFirst()
    {
        const QByteArray all = "<VirtualHost *:80>\nServerName x.example\nServerAlias *.org\n</VirtualHost>";
        const QList<AccountSite> accounts = {{u"alice"_s, u"example.org"_s, false}};
        const QList<VirtualHost> own = siteOf(u"alice"_s, u"example.org"_s);
        QCOMPARE(
            checkSites(parseSite(u"all"_s, all) + own, accounts, {u"alice"_s}).value(0).problem,
            u"the sites all and corv-alice both answer to example.org, www.example.org; visitors get those of all"_s);
        QCOMPARE(checkSites(own + parseSite(u"zz-all"_s, all), accounts, {u"alice"_s}).size(), 0);
    }

    void takesTheSameNameAtAnotherPortForNoDouble()
    {
        const QList<Finding> found =
            checkSites(siteOf(u"alice"_s, u"example.org"_s) + parseSite(u"corv-alice-le-ssl"_s, kEncrypted),
                       {{u"alice"_s, u"example.org"_s, false}}, {u"alice"_s});
        QCOMPARE(
            asText(found),
            QStringList{u"note|the site corv-alice-le-ssl serves the home or name of the account alice too; suspending "
                        "or deleting it leaves that site on line|apache2ctl -S"_s});
    }

    void findsASiteThatTakesTheVisitorsOfAllOthers_data()
    {
        QTest::addColumn<QByteArray>("opening");
        QTest::addColumn<bool>("isHttpsOn");
        QTest::addColumn<QStringList>("found");
        const QString takes =
            u"fault|the site other takes all visitors of %1 on port %2, those of the accounts too: an "
            "address goes before *; *:%2 there shares them by name|editor "
            "/etc/apache2/sites-enabled/other.conf && systemctl reload apache2"_s;
        const QString loopback =
            u"note|the site other takes all that comes to %1 on port 80; a proxy on this server that "
            "asks there does not reach the accounts' sites|apache2ctl -S"_s;
        const QStringList none = {};
        QTest::newRow("an address") << QByteArray("203.0.113.5:80") << false
                                    << QStringList{takes.arg(u"203.0.113.5"_s, u"80"_s)};
        QTest::newRow("IPv6, written otherwise")
            << QByteArray("[2001:DB8:0:0::5]:80") << false << QStringList{takes.arg(u"2001:db8::5"_s, u"80"_s)};
        QTest::newRow("twice") << QByteArray("203.0.113.5:80 203.0.113.5:80") << false
                               << QStringList{takes.arg(u"203.0.113.5"_s, u"80"_s)};
        QTest::newRow("one of many") << QByteArray("*:80 203.0.113.5:80") << false
                                     << QStringList{takes.arg(u"203.0.113.5"_s, u"80"_s)};
        QTest::newRow("without a port") << QByteArray("203.0.113.5") << false
                                        << QStringList{takes.arg(u"203.0.113.5"_s, u"80"_s)};
        QTest::newRow("without a port, and HTTPS")
            << QByteArray("203.0.113.5") << true
            << QStringList{takes.arg(u"203.0.113.5"_s, u"80"_s), takes.arg(u"203.0.113.5"_s, u"443"_s)};
        QTest::newRow("all") << QByteArray("*:80") << false << none;
        QTest::newRow("all, written otherwise") << QByteArray("0.0.0.0:80 [::]:80 _default_:80") << false << none;
        QTest::newRow("another port") << QByteArray("203.0.113.5:8080") << false << none;
        QTest::newRow("HTTPS, which accounts have not") << QByteArray("203.0.113.5:443") << false << none;
        QTest::newRow("HTTPS, which accounts have")
            << QByteArray("203.0.113.5:443") << true << QStringList{takes.arg(u"203.0.113.5"_s, u"443"_s)};
        QTest::newRow("another server's address") << QByteArray("203.0.113.6:80") << false << none;
        QTest::newRow("loopback") << QByteArray("127.0.0.1:80") << false << QStringList{loopback.arg(u"127.0.0.1"_s)};
        QTest::newRow("IPv6 loopback") << QByteArray("[::1]:80") << false << QStringList{loopback.arg(u"::1"_s)};
        QTest::newRow("a name")
            << QByteArray("web1.example:80") << false
            << QStringList{u"note|the site other is at web1.example, a name whose address Apache asks for when it "
                           "starts; where that is this server's, it takes the accounts' visitors on port 80|editor "
                           "/etc/apache2/sites-enabled/other.conf && systemctl reload apache2"_s};
    }
    void findsASiteThatTakesTheVisitorsOfAllOthers()
    {
        QFETCH(QByteArray, opening);
        QFETCH(bool, isHttpsOn);
        const QList<VirtualHost> other =
            parseSite(u"other"_s, "<VirtualHost " + opening + ">\nServerName other.example\n</VirtualHost>");
        const QStringList own = {u"203.0.113.5"_s, u"2001:db8::5"_s};
        QTEST(asText(checkAddresses(siteOf(u"alice"_s, u"example.org"_s) + other, own, isHttpsOn)), "found");
        // Without accounts it is nobody's affair.
        QCOMPARE(asText(checkAddresses(other, own, isHttpsOn)), QStringList());
    }

    void findsNamesThatAnAddressHides()
    {
        const QList<VirtualHost> own = siteOf(u"alice"_s, u"example.org"_s);
        const QList<AccountSite> accounts = {{u"alice"_s, u"example.org"_s, false}};
        const auto found = [&](const QByteArray &text, const QStringList &addresses) {
            return asText(checkSites(own + parseSite(u"zz"_s, text), accounts, {u"alice"_s}, addresses));
        };
        const QString both = u"fault|the sites zz and corv-alice both answer to %1; visitors get those of zz|grep -inE "
                             "'Server(Name|Alias)' /etc/apache2/sites-enabled/zz.conf "
                             "/etc/apache2/sites-enabled/corv-alice.conf"_s;
        // Behind the account's own by its file's name, and before it by its address.
        const QByteArray name = "<VirtualHost 203.0.113.5:80>\nServerName example.org\n</VirtualHost>";
        QCOMPARE(found(name, {u"203.0.113.5"_s}), QStringList{both.arg(u"example.org"_s)});
        const QByteArray pattern =
            "<VirtualHost 203.0.113.5:80>\nServerName x.example\nServerAlias *.org\n</VirtualHost>";
        QCOMPARE(found(pattern, {u"203.0.113.5"_s}), QStringList{both.arg(u"example.org, www.example.org"_s)});
        // Where no visitor comes, nothing is hidden.
        QCOMPARE(found(pattern, {}), QStringList());
        QVERIFY(found(name, {}).join(u' ').startsWith("note|the site zz serves the home or name"_L1));
    }

    void asksTheSitesOfAllAddressesWhereNoOtherOneAnswers()
    {
        const QList<VirtualHost> own = siteOf(u"alice"_s, u"example.org"_s);
        const auto visited = [](const QList<VirtualHost> &hosts) { return visitsTo(hosts).constFirst().address; };
        QCOMPARE(visited(own), u"127.0.0.1"_s);
        QCOMPARE(visited(own + parseSite(u"a"_s, "<VirtualHost 127.0.0.1:80 127.0.0.2:80>\n</VirtualHost>")),
                 u"127.0.0.3"_s);
        // Of those that are asked alone, too.
        const QList<VirtualHost> inner = parseSite(u"a"_s, "<VirtualHost 127.0.0.1:80>\n</VirtualHost>");
        QCOMPARE(visitsTo(own, own + inner).constFirst().address, u"127.0.0.2"_s);
        QCOMPARE(visited(own + parseSite(u"a"_s, "<VirtualHost 127.0.0.1:8080>\n</VirtualHost>")), u"127.0.0.1"_s);
    }

    void findsWhatASuspensionDoesNotReach()
    {
        const QList<Finding> found =
            checkSites(siteOf(u"alice"_s, u"example.org"_s, true) + parseSite(u"corv-alice-le-ssl"_s, kEncrypted),
                       {{u"alice"_s, u"example.org"_s, true}}, {u"alice"_s});
        QCOMPARE(
            asText(found),
            QStringList{u"fault|the account alice is suspended, but the site corv-alice-le-ssl serves its home or name "
                        "all the same|a2dissite -q corv-alice-le-ssl && systemctl reload apache2"_s});
    }

    void findsASiteThatServesAHomeOfNobody()
    {
        QCOMPARE(asText(checkSites(parseSite(u"corv-alice-le-ssl"_s, kEncrypted), {}, {u"root"_s})),
                 QStringList{u"fault|the site corv-alice-le-ssl serves the home or the PHP of alice, who is no user|"
                             "a2dissite -q corv-alice-le-ssl && systemctl reload apache2"_s});
        QCOMPARE(asText(checkSites(siteOf(u"alice"_s, u"example.org"_s), {}, {u"root"_s})), QStringList());
    }

    void readsAnswers_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<bool>("isAll");
        QTest::addColumn<QString>("expected");
        const QString later = u"later"_s;
        QTest::newRow("nothing yet") << QByteArray() << false << later;
        QTest::newRow("a page") << QByteArray("HTTP/1.1 200 OK\r\n") << false << u"200 other asked -"_s;
        QTest::newRow("without a word") << QByteArray("HTTP/1.0 404 \r\n") << false << u"404 other asked -"_s;
        QTest::newRow("without blank and word") << QByteArray("HTTP/1.1 301\r\n") << false << u"301 other asked -"_s;
        QTest::newRow("half a line") << QByteArray("HTTP/1.1 200 O") << true << later;
        QTest::newRow("no HTTP") << QByteArray("SSH-2.0-x\r\n") << true << later;
        QTest::newRow("not a status") << QByteArray("HTTP/1.1 20 OK\r\n") << true << later;
        QTest::newRow("something before") << QByteArray("HTTP/1.1 103 Early Hints\r\nX: y\r\n\r\nHTTP/1.1 204 No\r\n")
                                          << false << u"204 other asked -"_s;
        QTest::newRow("only something before") << QByteArray("HTTP/1.1 103 Early Hints\r\n\r\n") << true << later;
        QTest::newRow("Apache's own page") << kApaches << false << u"503 own asked -"_s;
        QTest::newRow("Apache's own page as newer ones write it")
            << QByteArray(kApaches).replace("\"-//IETF//DTD HTML 2.0//EN\"",
                                            "\"-//W3C//DTD HTML 4.01//EN\" \"http://www.w3.org/TR/html4/strict.dtd\"")
            << false << u"503 own asked -"_s;
        QTest::newRow("page still to come") << kApaches.left(70) << false << later;
        QTest::newRow("a page of its own")
            << QByteArray("HTTP/1.1 503 x\r\n\r\nclosed\n") << true << u"503 other asked -"_s;
        QTest::newRow("a suspended site's page")
            << QByteArray("HTTP/1.1 503 x\r\nContent-Length: 37\r\n\r\nThis site is temporarily unavailable.") << true
            << u"503 suspension's asked -"_s;
        QTest::newRow("another status in the page")
            << QByteArray(kApaches).replace("<title>503", "<title>404") << true << u"503 other asked -"_s;
    }
    void readsAnswers()
    {
        QFETCH(QByteArray, answer);
        QFETCH(bool, isAll);
        const std::optional<Visited> visited = readAnswer(answer, isAll);
        QTEST(visited ? described(*visited) : u"later"_s, "expected");
    }

    void knowsThePageOfASuspendedSite()
    {
        QVERIFY(hosting::vhost(u"alice"_s, u"example.org"_s, true, true)
                    .contains(u"ErrorDocument 503 \"%1\"\n"_s.arg(hosting::kSuspendedPage)));
    }

    void visitsAsAVisitorDoes()
    {
        Server server("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", true);
        const QList<Visited> visited = visit({{u"127.0.0.1"_s, server.port(), u"example.org"_s}}, 20'000);
        QCOMPARE(described(visited.value(0)), u"200 other asked -"_s);
        QCOMPARE(server.request, "GET / HTTP/1.1\r\nHost: example.org\r\nUser-Agent: corvctl\r\nAccept: */*\r\n"
                                 "Connection: close\r\n\r\n");
    }

    void visitsManyAndKeepsTheirOrder()
    {
        Server good("HTTP/1.1 200 OK\r\n\r\n", true);
        Server bad(kApaches, true);
        QList<Visit> visits;
        for (int i = 0; i < 150; ++i)
            visits.append({u"127.0.0.1"_s, i % 2 == 0 ? good.port() : bad.port(), u"example.org"_s});
        const QList<Visited> visited = visit(visits, 20'000);
        QCOMPARE(visited.size(), 150);
        for (int i = 0; i < 150; ++i)
            QCOMPARE(described(visited[i]), i % 2 == 0 ? u"200 other asked -"_s : u"503 own asked -"_s);
    }

    void doesNotWaitForASilentServer()
    {
        Server silent({}, false);
        Server slow("HTTP/1.1 503 Service Unavailable\r\nX: y", false);
        Server good("HTTP/1.1 200 OK\r\n", false);
        const QList<Visited> visited = visit({{u"127.0.0.1"_s, silent.port(), u"a.example"_s},
                                              {u"127.0.0.1"_s, slow.port(), u"b.example"_s},
                                              {u"127.0.0.1"_s, good.port(), u"c.example"_s}},
                                             500);
        QCOMPARE(described(visited.value(0)), u"0 other asked late no answer within 0.5 s"_s);
        QCOMPARE(described(visited.value(1)), u"0 other asked late no answer within 0.5 s"_s);
        QCOMPARE(described(visited.value(2)), u"200 other asked -"_s);
    }

    void readsOfAnEndlessAnswerOnlyTheBeginning()
    {
        Server endless("HTTP/1.1 500 x\r\n" + QByteArray("A: b\r\n").repeated(100'000), false);
        QCOMPARE(described(visit({{u"127.0.0.1"_s, endless.port(), u"a.example"_s}}, 20'000).value(0)),
                 u"500 other asked -"_s);
    }

    void saysWhyThereIsNoAnswer()
    {
        int port = 0;
        {
            Server gone({}, true);
            port = gone.port();
        }
        Server silent({}, true);
        Server strange("SSH-2.0-OpenSSH\r\n", true);
        const QList<Visited> visited = visit({{u"127.0.0.1"_s, port, u"a.example"_s},
                                              {u"127.0.0.1"_s, silent.port(), u"a.example"_s},
                                              {u"127.0.0.1"_s, strange.port(), u"a.example"_s},
                                              {u"web.example"_s, 80, u"a.example"_s},
                                              {u"127.0.0.1"_s, 70'000, u"a.example"_s},
                                              {u"127.0.0.1"_s, strange.port(), u"a\r\nX: y"_s}},
                                             20'000);
        QStringList told;
        for (const Visited &one : visited)
            told.append(described(one));
        QCOMPARE(told, (QStringList{u"0 other asked - Connection refused"_s, u"0 other asked - no answer of HTTP"_s,
                                    u"0 other asked - no answer of HTTP"_s, u"0 other not -"_s, u"0 other not -"_s,
                                    u"0 other not -"_s}));
    }

    void asksEachSiteOnceWithoutEncryption()
    {
        const QList<VirtualHost> hosts =
            parseSite(u"000-default"_s, "<VirtualHost *:80>\n</VirtualHost>\n<VirtualHost *:443>\n</VirtualHost>") +
            siteOf(u"alice"_s, u"example.org"_s) + siteOf(u"bobby"_s, u"example.org"_s) +
            parseSite(u"corv-alice-le-ssl"_s, kEncrypted) +
            parseSite(u"x"_s, "<VirtualHost [2001:db8::1]:8080>\nServerName x.example\n</VirtualHost>");
        QStringList asked;
        for (const Visit &one : visitsTo(hosts))
            asked.append(u"%1 %2 %3"_s.arg(one.address).arg(one.port).arg(one.host));
        QCOMPARE(asked, (QStringList{u"127.0.0.1 80 localhost"_s, u"127.0.0.1 80 example.org"_s,
                                     u"2001:db8::1 8080 x.example"_s}));
    }

    void judgesWhatVisitorsSee_data()
    {
        QTest::addColumn<Visited>("visited");
        QTest::addColumn<bool>("suspended");
        QTest::addColumn<Sight>("sight");
        const auto answer = [](int status, bool own = false) { return Visited{status, own, true, false, {}}; };
        QTest::newRow("a page") << answer(200) << false << Sight::Well;
        QTest::newRow("a redirect") << answer(302) << false << Sight::Well;
        QTest::newRow("forbidden") << answer(403) << false << Sight::Well;
        QTest::newRow("its own error") << answer(500) << false << Sight::OwnError;
        QTest::newRow("a bad gateway") << answer(502) << false << Sight::Broken;
        QTest::newRow("a slow gateway") << answer(504, true) << false << Sight::Broken;
        QTest::newRow("Apache's 503") << answer(503, true) << false << Sight::Broken;
        QTest::newRow("its own 503") << answer(503) << false << Sight::Well;
        QTest::newRow("a suspension's 503 without one")
            << Visited{503, false, true, false, {}, true} << false << Sight::Stale;
        QTest::newRow("nothing") << Visited{0, false, true, false, u"x"_s} << false << Sight::Broken;
        QTest::newRow("not asked") << Visited() << false << Sight::NotAsked;
        QTest::newRow("suspended") << answer(503) << true << Sight::Suspended;
        QTest::newRow("suspended, and pages") << answer(200) << true << Sight::Open;
        QTest::newRow("suspended, and nothing") << Visited{0, false, true, false, u"x"_s} << true << Sight::Broken;
    }
    void judgesWhatVisitorsSee()
    {
        QFETCH(Visited, visited);
        QFETCH(bool, suspended);
        const QList<SiteSight> sights =
            sightsOf(siteOf(u"alice"_s, u"example.org"_s), {{u"alice"_s, u"example.org"_s, suspended}}, {visited});
        QCOMPARE(sights.size(), 1);
        QCOMPARE(sights[0].isAccounts, true);
        QTEST(sights[0].sight, "sight");
    }

    void tellsWhatVisitorsSeeByItsCause()
    {
        const auto sight = [](const QString &host, int status, Sight what, const QString &problem = {}) {
            return SiteSight{
                u"corv-x"_s, host, 80, true, status, what, what == Sight::Broken && problem.startsWith(u'n'), problem};
        };
        SiteSight byHand = sight(u"hand.example"_s, 502, Sight::Broken);
        byHand.isAccounts = false;
        const QList<SiteSight> sights = {sight(u"a.example"_s, 503, Sight::Broken),
                                         sight(u"b.example"_s, 200, Sight::Well),
                                         sight(u"c.example"_s, 503, Sight::Broken),
                                         sight(u"d.example"_s, 0, Sight::Broken, u"Connection refused"_s),
                                         sight(u"e.example"_s, 0, Sight::Broken, u"no answer within 3 s"_s),
                                         sight(u"f.example"_s, 500, Sight::OwnError),
                                         sight(u"g.example"_s, 200, Sight::Open),
                                         sight(u"h.example"_s, 503, Sight::Suspended),
                                         sight(u"i.example"_s, 503, Sight::Stale),
                                         byHand};
        QCOMPARE(
            asText(checkSights(sights, u"8.2"_s)),
            (QStringList{
                u"fault|visitors of a.example, c.example see 503 Service Unavailable|systemctl restart "
                "php8.2-fpm"_s,
                u"fault|visitors of d.example get no page from port 80: Connection refused|apache2ctl configtest && "
                "systemctl restart apache2"_s,
                u"fault|visitors of e.example wait: no answer within 3 s|tail -n 20 "
                "/var/log/apache2/e.example-error.log | cat -v"_s,
                u"fault|visitors of hand.example see 502 Bad Gateway|tail -n 20 /var/log/apache2/error.log | cat -v"_s,
                u"note|visitors of f.example see 500 Internal Server Error, which the site itself makes|tail -n 20 "
                "/var/log/apache2/f.example-error.log | cat -v"_s,
                u"fault|visitors of i.example are told that it is suspended, which it is not any more|apache2ctl "
                "configtest && systemctl reload apache2"_s,
                u"fault|the site corv-x is suspended, but its visitors still get an answer: status 200|apache2ctl "
                "configtest && systemctl reload apache2"_s,
            }));
    }

    void namesAFewOfMany()
    {
        QCOMPARE(someOf({u"a"_s, u"b"_s, u"c"_s, u"d"_s}), u"a, b, c, d"_s);
        QCOMPARE(someOf({u"a"_s, u"b"_s, u"c"_s, u"d"_s, u"e"_s}), u"a, b, c and 2 more"_s);
    }
};

QTEST_GUILESS_MAIN(TestDoctorSites)
#include "test_doctor_sites.moc"
