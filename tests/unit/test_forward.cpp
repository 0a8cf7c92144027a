#include "ctl/doctor/Believed.h"
#include "ctl/doctor/Forwards.h"

#include "ctl/move/Forward.h"
#include "mend_of.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;

namespace {

const auto kKey = "0123456789abcdef0123456789abcdef"_ba;

Forward shop()
{
    return {u"shop"_s, u"shop.example"_s, u"192.0.2.7"_s, kKey, {}, {}};
}

Forward shopOnHttps()
{
    Forward forward = shop();
    forward.certificate = u"/etc/corvane/https/own/shop-1.crt"_s;
    forward.certificateKey = u"/etc/corvane/https/own/shop-1.key"_s;
    return forward;
}

QStringList asText(const QList<Finding> &findings)
{
    QStringList lines;
    for (const Finding &one : findings)
        lines.append((one.level == Level::Fault ? u"fault: "_s : u"note: "_s) + one.problem + u" | "_s + mendOf(one));
    return lines;
}

} // namespace

class TestForward : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theTextOfOneWithoutHttps()
    {
        QCOMPARE(
            forwardText(shop()),
            R"(# Managed by Corvane: the account shop has moved to 192.0.2.7. "corvctl account forward shop off" takes it away.
<VirtualHost *:80>
    ServerName shop.example
    ServerAlias www.shop.example
    ErrorLog ${APACHE_LOG_DIR}/shop.example-error.log
    CustomLog ${APACHE_LOG_DIR}/shop.example-access.log corv
    RequestHeader set X-Corvane-Client-0123456789abcdef0123456789abcdef "expr=%{REMOTE_ADDR}"
    LimitRequestBody 0
    AllowEncodedSlashes NoDecode
    ProxyRequests Off
    ProxyPreserveHost On
    ProxyAddHeaders Off
    ProxyPass /.well-known/corv-forward/ !
    ProxyPass / http://192.0.2.7/ nocanon disablereuse=on upgrade=websocket
    Redirect 204 )" +
                forwardMark(shop()) + R"(
</VirtualHost>
)");
    }

    void oneOnHttpsHangsOnItsFilesBeingThere()
    {
        const QByteArray text = forwardText(shopOnHttps());
        const QByteArray begin =
            "<IfModule mod_ssl.c>\n<IfFile \"/etc/corvane/https/own/shop-1.crt\">\n<IfFile "
            "\"/etc/corvane/https/own/shop-1.key\">\n<IfFile \"/etc/ssl/certs/ca-certificates.crt\">\n"
            "<VirtualHost *:443>\n";
        QVERIFY(text.contains(begin));
        QVERIFY(text.contains("    ProxyPass / https://192.0.2.7/ nocanon"));
        QVERIFY(text.contains("    SSLProxyVerify require\n    SSLProxyVerifyDepth 10\n"));
        QVERIFY(text.endsWith("</VirtualHost>\n</IfFile>\n</IfFile>\n</IfFile>\n</IfModule>\n"));
    }

    void anIpv6AddressStandsInBrackets()
    {
        Forward forward = shop();
        forward.address = u"2001:db8::7"_s;
        QVERIFY(forwardText(forward).contains("    ProxyPass / http://[2001:db8::7]/ nocanon"));
        QCOMPARE(parseForward(u"shop"_s, forwardText(forward))->address, forward.address);
    }

    void whatItWritesItReads()
    {
        for (const Forward &one : {shop(), shopOnHttps()}) {
            const std::optional<Forward> read = parseForward(u"shop"_s, forwardText(one));
            QVERIFY(read);
            QCOMPARE(read->domain, one.domain);
            QCOMPARE(read->address, one.address);
            QCOMPARE(read->key, one.key);
            QCOMPARE(read->certificate, one.certificate);
            QCOMPARE(read->certificateKey, one.certificateKey);
        }
    }

    void anotherTextIsNone_data()
    {
        QTest::addColumn<QByteArray>("from");
        QTest::addColumn<QByteArray>("to");
        QTest::newRow("a directive more") << "    ProxyRequests Off\n"_ba
                                          << "    ProxyRequests On\n"_ba;
        QTest::newRow("another name") << "ServerName shop.example"_ba
                                      << "ServerName shop.example\n    ServerAlias x"_ba;
        QTest::newRow("no address") << "192.0.2.7"_ba
                                    << "192.0.2.07"_ba;
        QTest::newRow("a short key") << kKey << "0123"_ba;
        QTest::newRow("no domain") << "shop.example"_ba
                                   << "shop"_ba;
    }

    void anotherTextIsNone()
    {
        QFETCH(const QByteArray, from);
        QFETCH(const QByteArray, to);
        QByteArray text = forwardText(shop());
        QVERIFY(text.contains(from));
        QVERIFY(!parseForward(u"shop"_s, text.replace(from, to)));
        QVERIFY(!parseForward(u"blog"_s, forwardText(shop())));
    }

    void eachTextHasAMarkOfItsOwn()
    {
        Forward other = shop();
        other.address = u"192.0.2.8"_s;
        QVERIFY(forwardMark(other) != forwardMark(shop()));
        QVERIFY(forwardMark(shopOnHttps()) != forwardMark(shop()));
    }

    void addresses_data()
    {
        QTest::addColumn<bool>("isOne");
        for (const char *const good : {"192.0.2.7", "2001:db8::7", "::1"})
            QTest::newRow(good) << true;
        for (const char *const bad : {"", "192.0.2", "192.0.2.07", "192.0.2.7\n", "2001:DB8::7", "2001:db8:0:0::7",
                                      "fe80::1%eth0", "web2.example", "192.0.2.7/24", " 192.0.2.7", "[::1]"})
            QTest::newRow(bad) << false;
    }

    void addresses()
    {
        QFETCH(const bool, isOne);
        QCOMPARE(isPlainAddress(QString::fromLatin1(QTest::currentDataTag())), isOne);
    }

    void keys()
    {
        QVERIFY(isForwardKey(kKey));
        for (const QByteArray &bad : {kKey + "\n", kKey + "0", kKey.left(31), kKey.toUpper(), QByteArray()})
            QVERIFY(!isForwardKey(bad));
    }

    void sitesOfForwardsAreTold()
    {
        QCOMPARE(forwardSite(u"shop"_s), u"001-moved-shop"_s);
        QCOMPARE(accountForwardedBy(u"001-moved-shop"_s), u"shop"_s);
        for (const auto &other : {u"001-moved-"_s, u"001-moved-a/b"_s, u"corv-shop"_s, u"001-moved-Shop"_s})
            QCOMPARE(accountForwardedBy(other), QString());
    }

    void whatTheDoctorSays()
    {
        const auto off = u" | corvctl account forward shop off"_s;
        QCOMPARE(asText(checkForwards({shop()}, {{u"shop"_s, u"shop.example"_s, true}})), QStringList());
        QCOMPARE(
            asText(checkForwards({shop()}, {{u"shop"_s, u"shop.example"_s, false}})),
            QStringList{
                u"fault: the account shop is on-line here, but visitors of shop.example are led on to 192.0.2.7 by "
                "the site 001-moved-shop"_s +
                off});
        QCOMPARE(
            asText(checkForwards({shop()}, {{u"other"_s, u"shop.example"_s, false}})),
            QStringList{
                u"fault: the account other is on-line here, but visitors of shop.example are led on to 192.0.2.7 by "
                "the site 001-moved-shop"_s +
                off});
        QCOMPARE(
            asText(checkForwards({shop()}, {})),
            QStringList{
                u"note: visitors of shop.example are still led on to 192.0.2.7, to which the account shop has moved "
                "that is gone"_s +
                off});
        QCOMPARE(
            asText(checkForwards({shop()}, {{u"shop"_s, u"new.example"_s, true}})),
            QStringList{
                u"fault: the site 001-moved-shop leads visitors of shop.example on to 192.0.2.7, but the account shop "
                "has another domain here"_s +
                off});
        Forward edited;
        edited.account = u"shop"_s;
        QCOMPARE(
            asText(checkForwards({edited}, {})),
            QStringList{u"note: the site 001-moved-shop is not as its making left it, or is not readable"_s + off});
    }

    void howASiteOfAForwardIsTakenOff()
    {
        QCOMPARE(disableSites({u"001-moved-shop"_s, u"tls"_s}),
                 u"corvctl account forward shop off && a2dissite -q tls && systemctl reload apache2"_s);
    }

    void whoIsBelieved()
    {
        const QByteArray text = believedText({{u"blog"_s, u"192.0.2.1"_s}, {u"shop"_s, u"2001:db8::1"_s}}, kKey);
        QCOMPARE(
            text,
            R"(# Managed by Corvane: servers that lead on the names of accounts that have moved here, see "corvctl account forwarded".
<IfModule mod_remoteip.c>
    RemoteIPHeader X-Corvane-Client-0123456789abcdef0123456789abcdef
    # blog
    RemoteIPInternalProxy 192.0.2.1
    # shop
    RemoteIPInternalProxy 2001:db8::1
</IfModule>
)"_ba);
        const QList<Believed> read = parseBelieved(text);
        QCOMPARE(read.size(), 2);
        QCOMPARE(read[1].account, u"shop"_s);
        QCOMPARE(read[1].address, u"2001:db8::1"_s);
        QVERIFY(
            parseBelieved(QByteArray(text).replace("</IfModule>", "    RemoteIPTrustedProxy 0.0.0.0/0\n</IfModule>"))
                .isEmpty());
        QVERIFY(parseBelieved({}).isEmpty());
    }

    void oneThatIsBelievedForNobodyIsTold()
    {
        const QList<Believed> all = {{u"shop"_s, u"192.0.2.1"_s}, {u"blog"_s, u"192.0.2.2"_s}};
        QCOMPARE(
            asText(checkBelieved(all, {{u"shop"_s, u"shop.example"_s, false}})),
            QStringList{
                u"note: 192.0.2.2 is believed what it tells of visitors' addresses, for the account blog, which is "
                "gone | corvctl account forwarded blog off"_s});
    }

    void theAddressOfARequestInALog()
    {
        const QByteArray line =
            "192.0.2.9 - - [22/Nov/2026:23:00:00 +0000] \"GET /.well-known/corv-moved/from/" + kKey + " HTTP/1.1\" 404";
        QCOMPARE(moving::addressIn("10.0.0.1 - - \"GET / HTTP/1.1\"\n" + line + "\n10.0.0.2 - -\n", kKey),
                 u"192.0.2.9"_s);
        QCOMPARE(moving::addressIn(line, kKey), u"192.0.2.9"_s);
        QCOMPARE(moving::addressIn(line, "0" + kKey.mid(1, 30) + "0"), QString());
        QCOMPARE(moving::addressIn("x " + line, kKey), QString());
        QCOMPARE(moving::addressIn(line, {}), QString());
    }
};

QTEST_GUILESS_MAIN(TestForward)
#include "test_forward.moc"
