#include "agent/security/Address.h"
#include "agent/security/Parse.h"

#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv::security;

namespace {

// One line of text for each rule, so that a whole list is compared at once.
QStringList asText(const QList<Rule> &rules)
{
    QStringList lines;
    for (const Rule &rule : rules)
        lines.append(u"%1|%2|%3|%4"_s.arg(rule.number).arg(rule.to, rule.action, rule.from));
    return lines;
}

QStringList asText(const QList<Upgrade> &upgrades)
{
    QStringList lines;
    for (const Upgrade &upgrade : upgrades)
        lines.append(u"%1|%2|%3|%4"_s.arg(upgrade.name, upgrade.to, upgrade.from,
                                          upgrade.security ? u"security"_s : u"plain"_s));
    return lines;
}

QString asText(const Jail &jail)
{
    return u"%1|%2|%3"_s.arg(jail.failed).arg(jail.totalBanned).arg(jail.banned.join(u' '));
}

} // namespace

class TestSecurity : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsARule_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("rule");
        const auto columns = [](const char *to, int blanks, const char *rest) {
            return QByteArray(to) + QByteArray(blanks, ' ') + rest;
        };
        QTest::newRow("one port") << columns("[ 1] 22/tcp", 21, "ALLOW IN    Anywhere")
                                  << u"1|22/tcp|ALLOW IN|Anywhere"_s;
        QTest::newRow("two ports and a range") << columns("[10] 80,443/tcp", 17, "ALLOW IN    203.0.113.0/24")
                                               << u"10|80,443/tcp|ALLOW IN|203.0.113.0/24"_s;
        QTest::newRow("the twin of a rule") << columns("[ 2] 22/tcp (v6)", 16, "ALLOW IN    Anywhere (v6)")
                                            << u"2|22/tcp (v6)|ALLOW IN|Anywhere (v6)"_s;
        QTest::newRow("trailing blanks and a carriage return")
            << QByteArray("[ 1] 22  DENY  Anywhere  \r") << u"1|22|DENY|Anywhere"_s;
        QTest::newRow("a comment belongs to the source")
            << QByteArray("[ 3] 25/tcp  ALLOW IN  Anywhere                   # mail")
            << u"3|25/tcp|ALLOW IN|Anywhere                   # mail"_s;
        QTest::newRow("an interface belongs to the destination")
            << QByteArray("[ 4] 22/tcp on eth0             LIMIT OUT   Anywhere (out)")
            << u"4|22/tcp on eth0|LIMIT OUT|Anywhere (out)"_s;
        QTest::newRow("a direction that is none goes to the source")
            << QByteArray("[ 5] 80  ALLOW FWD   Anywhere") << u"5|80|ALLOW|FWD   Anywhere"_s;
        QTest::newRow("rejected") << QByteArray("[ 6] 80  REJECT IN   Anywhere") << u"6|80|REJECT IN|Anywhere"_s;
        QTest::newRow("no destination") << QByteArray("[ 7]    ALLOW IN  Anywhere") << u"7| |ALLOW IN|Anywhere"_s;
        QTest::newRow("an application profile with a blank")
            << QByteArray("[ 8] Apache Full                ALLOW IN    Anywhere")
            << u"8|Apache Full|ALLOW IN|Anywhere"_s;
        QTest::newRow("the highest number")
            << QByteArray("[2147483647] 80  DENY  Anywhere") << u"2147483647|80|DENY|Anywhere"_s;
        QTest::newRow("a number that does not fit")
            << QByteArray("[2147483648] 80  DENY  Anywhere") << u"0|80|DENY|Anywhere"_s;
        QTest::newRow("no source but a direction") << QByteArray("[11] 80  ALLOW IN") << u"11|80|ALLOW|IN"_s;
        QTest::newRow("a source of blanks") << QByteArray("[12] 80  ALLOW IN   ") << u"12|80|ALLOW IN| "_s;
        QTest::newRow("letters outside ASCII") << QByteArray("[ 9] K\xc3\xbc"
                                                             "che  ALLOW IN  Anywhere")
                                               << u"9|Küche|ALLOW IN|Anywhere"_s;
    }

    void readsARule()
    {
        QFETCH(QByteArray, line);
        QFETCH(QString, rule);
        QCOMPARE(asText(parseRules(line)), QStringList{rule});
        QCOMPARE(asText(parseRules("Status: active\n\n" + line + "\n\n")), QStringList{rule});
    }

    void skipsWhatIsNoRule_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("the heading") << QByteArray("     To                         Action      From");
        QTest::newRow("the dashes") << QByteArray("     --                         ------      ----");
        QTest::newRow("one blank before the action") << QByteArray("[ 1] 22/tcp ALLOW IN    Anywhere");
        QTest::newRow("no source") << QByteArray("[ 1] 22/tcp  ALLOW");
        QTest::newRow("no number") << QByteArray("[  ] 22/tcp  ALLOW IN  Anywhere");
        QTest::newRow("a negative number") << QByteArray("[-1] 22/tcp  ALLOW IN  Anywhere");
        QTest::newRow("digits outside ASCII") << QByteArray("[\xd9\xa3] 22/tcp  ALLOW IN  Anywhere");
        QTest::newRow("something before the bracket") << QByteArray(" [ 1] 22/tcp  ALLOW IN  Anywhere");
        QTest::newRow("no blank after the bracket") << QByteArray("[ 1]22/tcp  ALLOW IN  Anywhere");
        QTest::newRow("an action in lower case") << QByteArray("[ 1] 22/tcp  allow in  Anywhere");
        QTest::newRow("another action") << QByteArray("[ 1] 22/tcp  ACCEPT IN  Anywhere");
        QTest::newRow("bytes that are no text") << QByteArray("\xff\xfe\x00[ 1]", 7);
    }

    void skipsWhatIsNoRule()
    {
        QFETCH(QByteArray, line);
        QCOMPARE(asText(parseRules(line)), QStringList());
    }

    void keepsTheOrderOfRules()
    {
        QCOMPARE(
            asText(parseRules("[ 2] 80  ALLOW IN  Anywhere\n[ 1] 22  DENY IN  Anywhere\n[ 2] 80  ALLOW IN  Anywhere")),
            (QStringList{u"2|80|ALLOW IN|Anywhere"_s, u"1|22|DENY IN|Anywhere"_s, u"2|80|ALLOW IN|Anywhere"_s}));
    }

    // The pattern in use is hardened against long lines; this is the plain one that says what a rule is.
    void readsAnyLineAsThePlainPatternDoes()
    {
        static const QRegularExpression plain(
            uR"(^\[\s*(\d+)\]\s+(.+?)\s{2,}((?:ALLOW|DENY|REJECT|LIMIT)(?: IN| OUT)?)\s+(.+?)\s*$)"_s);
        const QStringList pieces = {u" "_s,   u"  "_s,   u"   "_s, u"\t"_s,     u"\r"_s, u"ALLOW"_s, u"DENY"_s,
                                    u" IN"_s, u" OUT"_s, u"x"_s,   u"22/tcp"_s, u"["_s,  u"]"_s,     u"1"_s};
        QRandomGenerator random(20'240'229);
        int rules = 0;
        for (int line = 0; line < 100'000; ++line) {
            QString text = u"[1]"_s;
            for (int count = random.bounded(12); count > 0; --count)
                text += pieces[random.bounded(pieces.size())];
            QStringList expected;
            if (const QRegularExpressionMatch match = plain.match(text); match.hasMatch())
                expected.append(match.capturedTexts().sliced(1).join(u'|'));
            rules += static_cast<int>(expected.size());
            QCOMPARE(asText(parseRules(text.toUtf8())), expected);
        }
        QVERIFY2(rules > 1'000, "too few of the lines are rules to tell anything");
    }

    // Nothing that a tool prints may hold the agent up: it serves nobody meanwhile. Were the time not linear in a
    // line's length, these would run into the test's own time-out.
    void isNotHeldUpByLongLines_data()
    {
        QTest::addColumn<QByteArray>("line");
        const QByteArray blanks(20'000, ' ');
        QTest::newRow("blanks") << QByteArray("[ 1]" + blanks);
        QTest::newRow("blanks and no action") << QByteArray("[ 1]" + blanks + "ALLOWED");
        QTest::newRow("blanks before the number") << QByteArray("[" + blanks + "x");
        QTest::newRow("words") << QByteArray("[ 1] " + QByteArray("ab   ").repeated(10'000));
        QTest::newRow("actions without a source") << QByteArray("[ 1] " + QByteArray("a  ALLOW").repeated(10'000));
        QTest::newRow("two runs of blanks") << QByteArray("[ 1] x" + blanks + "y" + blanks + "z  ALLOW");
        QTest::newRow("brackets") << QByteArray(20'000, '[');
    }

    void isNotHeldUpByLongLines()
    {
        QFETCH(QByteArray, line);
        QCOMPARE(asText(parseRules((line + '\n').repeated(400))), QStringList());
        QCOMPARE(asText(parseUpgradable((line + '\n').repeated(400))), QStringList());
    }

    void knowsAnActiveFirewall()
    {
        QVERIFY(parseActive("Status: active\n\n     To   Action   From\n"));
        QVERIFY(parseActive("WARN: something\nStatus: active"));
        QVERIFY(!parseActive("Status: inactive\n"));
        QVERIFY(!parseActive("status: active\n"));
        QVERIFY(!parseActive(""));
    }

    void readsTheSshPorts_data()
    {
        QTest::addColumn<QByteArray>("configuration");
        QTest::addColumn<QStringList>("ports");
        const QStringList usual = {u"22"_s};
        QTest::newRow("one") << QByteArray("port 2222\naddressfamily any\n") << QStringList{u"2222"_s};
        QTest::newRow("two, in their order") << QByteArray("port 2222\nport 22\n") << QStringList{u"2222"_s, u"22"_s};
        QTest::newRow("one twice") << QByteArray("port 22\nport 22\n") << QStringList{u"22"_s, u"22"_s};
        QTest::newRow("not on the first line") << QByteArray("usepam yes\nport 2200") << QStringList{u"2200"_s};
        QTest::newRow("blanks around") << QByteArray("port   2200 \r\n") << QStringList{u"2200"_s};
        QTest::newRow("none") << QByteArray("addressfamily any\n") << usual;
        QTest::newRow("empty") << QByteArray() << usual;
        QTest::newRow("capital") << QByteArray("Port 2222\n") << usual;
        QTest::newRow("a tab") << QByteArray("port\t2222\n") << usual;
        QTest::newRow("a blank before") << QByteArray(" port 2222\n") << usual;
        QTest::newRow("another key") << QByteArray("portforward 2222\n") << usual;
        QTest::newRow("no value") << QByteArray("port \n") << QStringList{QString()};
        QTest::newRow("bytes outside ASCII") << QByteArray("port \xe9\n") << QStringList{u"é"_s};
    }

    void readsTheSshPorts()
    {
        QFETCH(QByteArray, configuration);
        QFETCH(QStringList, ports);
        QCOMPARE(parsePorts(configuration), ports);
    }

    void knowsTheRulesThatLetSshIn_data()
    {
        QTest::addColumn<QString>("to");
        QTest::addColumn<bool>("ssh");
        QTest::newRow("a port") << u"22"_s << true;
        QTest::newRow("a port and a protocol") << u"22/tcp"_s << true;
        QTest::newRow("the other protocol") << u"2222/udp"_s << true;
        QTest::newRow("the twin") << u"22 (v6)"_s << true;
        QTest::newRow("the twin with a protocol") << u"22/tcp (v6)"_s << true;
        QTest::newRow("a bracket at once") << u"2222(v6)"_s << true;
        QTest::newRow("on an interface") << u"22/tcp on eth0"_s << true;
        QTest::newRow("the second port") << u"2222/tcp"_s << true;
        QTest::newRow("the profile") << u"OpenSSH"_s << true;
        QTest::newRow("the profile's twin") << u"OpenSSH (v6)"_s << true;
        QTest::newRow("a longer port") << u"220/tcp"_s << false;
        QTest::newRow("a port that ends alike") << u"122/tcp"_s << false;
        QTest::newRow("the web") << u"80/tcp"_s << false;
        QTest::newRow("the profile in lower case") << u"openssh"_s << false;
        QTest::newRow("everywhere") << u"Anywhere"_s << false;
        QTest::newRow("an address first") << u"203.0.113.7 22/tcp"_s << false;
    }

    void knowsTheRulesThatLetSshIn()
    {
        QFETCH(QString, to);
        QFETCH(bool, ssh);
        QCOMPARE(letsSshIn(to, {u"22"_s, u"2222"_s}), ssh);
    }

    void keepsTheProfileEvenWhereSshListensElsewhere()
    {
        QVERIFY(letsSshIn(u"OpenSSH"_s, {u"2222"_s}));
        QVERIFY(!letsSshIn(u"22/tcp"_s, {u"2222"_s}));
    }

    void readsTheListOfJails_data()
    {
        QTest::addColumn<QByteArray>("status");
        QTest::addColumn<QStringList>("names");
        QTest::newRow("two") << QByteArray("Status\n|- Number of jail:\t2\n`- Jail list:\tsshd, corv-web\n")
                             << QStringList{u"sshd"_s, u"corv-web"_s};
        QTest::newRow("one") << QByteArray("`- Jail list:\tsshd\n") << QStringList{u"sshd"_s};
        QTest::newRow("none") << QByteArray("|- Number of jail:\t0\n`- Jail list:\t\n") << QStringList();
        QTest::newRow("nothing after the label") << QByteArray("Jail list:") << QStringList();
        QTest::newRow("no label") << QByteArray("Status\n") << QStringList();
        QTest::newRow("empty") << QByteArray() << QStringList();
        QTest::newRow("empty pieces") << QByteArray("Jail list: ,a,, b ,\n") << QStringList{u"a"_s, u"b"_s};
        QTest::newRow("everything to the end is the list")
            << QByteArray("Jail list:\ta,\nb, c\n") << QStringList{u"a"_s, u"b"_s, u"c"_s};
        QTest::newRow("the first label counts")
            << QByteArray("Jail list: a, Jail list: b\n") << QStringList{u"a"_s, u"Jail list: b"_s};
    }

    void readsTheListOfJails()
    {
        QFETCH(QByteArray, status);
        QFETCH(QStringList, names);
        QCOMPARE(parseJailList(status), names);
    }

    void readsAJail_data()
    {
        QTest::addColumn<QByteArray>("status");
        QTest::addColumn<QString>("jail");
        const auto status = [](const char *failed, const char *total, const char *banned) {
            return QByteArray("Status for the jail: sshd\n|- Filter\n|  |- Currently failed:\t") + failed +
                   "\n|  |- Total failed:\t9\n|  `- Journal matches:\t_SYSTEMD_UNIT=sshd.service + _COMM=sshd\n"
                   "`- Actions\n   |- Currently banned:\t2\n   |- Total banned:\t" +
                   total + "\n   `- Banned IP list:\t" + banned + "\n";
        };
        QTest::newRow("two addresses") << status("1", "4", "203.0.113.7 198.51.100.2")
                                       << u"1|4|203.0.113.7 198.51.100.2"_s;
        QTest::newRow("no address") << status("0", "0", "") << u"0|0|"_s;
        QTest::newRow("blanks between and after")
            << status("0", "2", "203.0.113.7  2001:db8::1 ") << u"0|2|203.0.113.7 2001:db8::1"_s;
        QTest::newRow("the highest number") << status("2147483647", "2147483647", "") << u"2147483647|2147483647|"_s;
        QTest::newRow("numbers that do not fit") << status("2147483648", "-2147483649", "") << u"0|0|"_s;
        QTest::newRow("words for numbers") << status("many", "1 2", "") << u"0|0|"_s;
        QTest::newRow("fractions") << status("1.5", "1e3", "") << u"0|0|"_s;
        QTest::newRow("empty") << QByteArray() << u"0|0|"_s;
        QTest::newRow("the first label counts") << QByteArray("Total banned: 1\nTotal banned: 2") << u"0|1|"_s;
        QTest::newRow("the list ends with its line") << QByteArray("Banned IP list:\t::1\n::2\n") << u"0|0|::1"_s;
        QTest::newRow("no final line feed") << QByteArray("Banned IP list: ::1") << u"0|0|::1"_s;
    }

    void readsAJail()
    {
        QFETCH(QByteArray, status);
        QFETCH(QString, jail);
        QCOMPARE(asText(parseJail(status)), jail);
    }

    void readsTheUpgradablePackages_data()
    {
        QTest::addColumn<QByteArray>("list");
        QTest::addColumn<QStringList>("upgrades");
        QTest::newRow("two archives") << QByteArray("openssl/noble-updates,noble-security 3.0.13-0ubuntu3.5 amd64 "
                                                    "[upgradable from: 3.0.13-0ubuntu3.4]\n")
                                      << QStringList{u"openssl|3.0.13-0ubuntu3.5|3.0.13-0ubuntu3.4|security"_s};
        QTest::newRow("one archive") << QByteArray("curl/noble-updates 8.5.0-2ubuntu10.6 amd64 "
                                                   "[upgradable from: 8.5.0-2ubuntu10.5]")
                                     << QStringList{u"curl|8.5.0-2ubuntu10.6|8.5.0-2ubuntu10.5|plain"_s};
        QTest::newRow("a name is no archive")
            << QByteArray("a-security/stable 2 all [upgradable from: 1]") << QStringList{u"a-security|2|1|plain"_s};
        QTest::newRow("the heading") << QByteArray("Listing...\nb/stable 2 all [upgradable from: 1]\n\n")
                                     << QStringList{u"b|2|1|plain"_s};
        QTest::newRow("something after") << QByteArray("b/stable 2 all [upgradable from: 1] [phased 10%]")
                                         << QStringList{u"b|2|1|plain"_s};
        QTest::newRow("installed") << QByteArray("b/stable,now 2 all [installed]") << QStringList();
        QTest::newRow("a blank before") << QByteArray(" b/stable 2 all [upgradable from: 1]") << QStringList();
        QTest::newRow("two blanks") << QByteArray("b/stable  2 all [upgradable from: 1]") << QStringList();
        QTest::newRow("no name") << QByteArray("/stable 2 all [upgradable from: 1]") << QStringList();
        QTest::newRow("no old version") << QByteArray("b/stable 2 all [upgradable from: ]") << QStringList();
        QTest::newRow("an open bracket") << QByteArray("b/stable 2 all [upgradable from: 1") << QStringList();
        QTest::newRow("empty") << QByteArray() << QStringList();
    }

    void readsTheUpgradablePackages()
    {
        QFETCH(QByteArray, list);
        QFETCH(QStringList, upgrades);
        QCOMPARE(asText(parseUpgradable(list)), upgrades);
    }

    void namesEachPackageThatAsksForARestartOnce()
    {
        QCOMPARE(parseRebootPackages("linux-image-6.1\ndbus\n\nlinux-image-6.1\nlibc6"),
                 (QStringList{u"linux-image-6.1"_s, u"dbus"_s, u"libc6"_s}));
        QCOMPARE(parseRebootPackages("\n\n"), QStringList());
        QCOMPARE(parseRebootPackages(""), QStringList());
    }

    void knowsAutomaticUpdates()
    {
        QVERIFY(parseAutomatic("APT::Periodic::Unattended-Upgrade \"1\";\n"));
        QVERIFY(parseAutomatic("APT::Periodic::Unattended-Upgrade\t\n \"1\";"));
        QVERIFY(!parseAutomatic("APT::Periodic::Unattended-Upgrade \"0\";\n"));
        QVERIFY(!parseAutomatic("APT::Periodic::Unattended-Upgrade \"10\";\n"));
        QVERIFY(!parseAutomatic("APT::Periodic::Unattended-Upgrade\"1\";\n"));
        QVERIFY(!parseAutomatic("APT::Periodic::Update-Package-Lists \"1\";\n"));
        QVERIFY(!parseAutomatic(""));
    }

    void showsTheEndOfALog_data()
    {
        QTest::addColumn<QByteArray>("log");
        QTest::addColumn<QString>("tail");
        const auto lines = [](int first, int last) {
            QByteArray text;
            for (int line = first; line <= last; ++line)
                text += "line " + QByteArray::number(line) + '\n';
            return text;
        };
        QTest::newRow("empty") << QByteArray() << QString();
        QTest::newRow("ten lines") << lines(1, 10) << QString::fromUtf8(lines(1, 10));
        QTest::newRow("39 lines") << lines(1, 39) << QString::fromUtf8(lines(1, 39));
        QTest::newRow("40 lines") << lines(1, 40) << QString::fromUtf8(lines(2, 40));
        QTest::newRow("a thousand lines") << lines(1, 1'000) << QString::fromUtf8(lines(962, 1'000));
        QTest::newRow("no final line feed") << lines(1, 41).chopped(1) << QString::fromUtf8(lines(2, 41)).chopped(1);
        QTest::newRow("empty lines") << QByteArray(100, '\n') << QString(39, u'\n');
        QTest::newRow("one endless line") << QByteArray(65'536, 'x') << QString(65'536, u'x');
        QTest::newRow("cut within a character") << QByteArray("\xbc"
                                                              "ber\n")
                                                << u"\uFFFDber\n"_s;
        QTest::newRow("a carriage return stays") << QByteArray("10%\r20%\r\n") << u"10%\r20%\r\n"_s;
    }

    void showsTheEndOfALog()
    {
        QFETCH(QByteArray, log);
        QFETCH(QString, tail);
        QCOMPARE(logTail(log), tail);
    }

    void acceptsAnAddress_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("address");
        QTest::addColumn<bool>("orRange");
        const auto both = [](const char *name, const QString &text) { QTest::newRow(name) << text << true << true; };
        const auto range = [](const char *name, const QString &text) { QTest::newRow(name) << text << false << true; };
        const auto none = [](const char *name, const QString &text) { QTest::newRow(name) << text << false << false; };

        both("four parts", u"203.0.113.7"_s);
        both("all zeros", u"0.0.0.0"_s);
        both("all ones", u"255.255.255.255"_s);
        both("six", u"2001:db8::1"_s);
        both("six in capitals", u"2001:DB8::A"_s);
        both("six in full", u"2001:0db8:0000:0000:0000:0000:0000:0001"_s);
        both("six, loopback", u"::1"_s);
        both("six, unspecified", u"::"_s);
        both("six with four parts", u"::ffff:203.0.113.7"_s);

        range("a length", u"203.0.113.0/24"_s);
        range("host bits", u"203.0.113.7/24"_s);
        range("length 0", u"0.0.0.0/0"_s);
        range("length 32", u"203.0.113.7/32"_s);
        range("a netmask", u"203.0.113.0/255.255.255.0"_s);
        range("the netmask of one", u"203.0.113.7/255.255.255.255"_s);
        range("the netmask of all", u"0.0.0.0/0.0.0.0"_s);
        range("six and a length", u"2001:db8::/32"_s);
        range("six and length 0", u"::/0"_s);
        range("six and length 128", u"::1/128"_s);

        none("empty", QString());
        none("a blank", u" "_s);
        none("a name", u"example.org"_s);
        none("localhost", u"localhost"_s);
        none("a part too high", u"203.0.113.300"_s);
        none("a part too long", u"203.0.113.1000"_s);
        none("five parts", u"203.0.113.7.1"_s);
        none("three parts", u"203.0.113"_s);
        none("two parts", u"127.1"_s);
        none("one number", u"2130706433"_s);
        none("octal", u"010.0.0.1"_s);
        none("two zeros", u"10.00.0.1"_s);
        none("hexadecimal", u"0x7f000001"_s);
        none("a hexadecimal part", u"0x7f.0.0.1"_s);
        none("an empty part", u"203..113.7"_s);
        none("a final dot", u"203.0.113.7."_s);
        none("a plus", u"203.0.113.+7"_s);
        none("a minus", u"-203.0.113.7"_s);
        none("an option", u"--help"_s);
        none("an option and a range", u"-1/8"_s);
        none("a leading blank", u" 203.0.113.7"_s);
        none("a final line feed", u"203.0.113.7\n"_s);
        none("a line feed before the slash", u"203.0.113.7\n/24"_s);
        none("a NUL", QString(u"203.0.113.7"_s + QChar(0)));
        none("a digit outside ASCII", u"203.0.113.\u0667"_s);
        none("a scope", u"fe80::1%eth0"_s);
        none("a scope with a command", u"::1%$(x)"_s);
        none("a scope and a length", u"fe80::1%eth0/64"_s);
        none("six, two gaps", u"1::2::3"_s);
        none("six, too many groups", u"1:2:3:4:5:6:7:8:9"_s);
        none("six, too few groups", u"1:2:3"_s);
        none("six, a group too high", u"2001:db8::10000"_s);
        none("six, no hexadecimal", u"2001:db8::g"_s);
        none("six, an octal part", u"::ffff:010.0.0.1"_s);
        none("six, two parts", u"::ffff:127.1"_s);
        none("six in brackets", u"[::1]"_s);
        none("six colons alone", u":::"_s);
        none("only a length", u"/32"_s);
        none("no length", u"203.0.113.0/"_s);
        none("length 33", u"203.0.113.0/33"_s);
        none("six, length 129", u"::1/129"_s);
        none("a length too long", u"203.0.113.0/4294967320"_s);
        none("a negative length", u"203.0.113.0/-1"_s);
        none("a length with a plus", u"203.0.113.0/+24"_s);
        none("an octal length", u"203.0.113.0/024"_s);
        none("a length with a blank", u"203.0.113.0/ 24"_s);
        none("a length with a final line feed", u"203.0.113.0/24\n"_s);
        none("a length of letters", u"203.0.113.0/ff"_s);
        none("two lengths", u"203.0.113.0/24/8"_s);
        none("a range of three parts", u"203.0.113/24"_s);
        none("a range of one number", u"10/8"_s);
        none("a netmask with a hole", u"203.0.113.0/255.0.255.0"_s);
        none("a netmask of three parts", u"203.0.113.0/255.255.255"_s);
        none("an octal netmask", u"203.0.113.0/0377.0.0.0"_s);
        none("a netmask of six for four", u"203.0.113.0/ffff::"_s);
        none("a netmask of six with parts", u"203.0.113.0/::255.255.255.0"_s);
        none("six and a netmask", u"2001:db8::/255.255.0.0"_s);
        none("any", u"any"_s);
    }

    void acceptsAnAddress()
    {
        QFETCH(QString, text);
        QFETCH(bool, address);
        QFETCH(bool, orRange);
        QCOMPARE(isAddress(text), address);
        QCOMPARE(isAddressOrRange(text), orRange);
    }

    void refusesAVeryLongAddressAtOnce()
    {
        for (const QString &piece : {u":"_s, u"f:"_s, u"1."_s, u"1"_s, u"/"_s}) {
            QVERIFY(!isAddress(piece.repeated(2'000'000)));
            QVERIFY(!isAddressOrRange(piece.repeated(2'000'000)));
            QVERIFY(!isAddressOrRange(u"::/"_s + piece.repeated(2'000'000)));
        }
    }
};

QTEST_APPLESS_MAIN(TestSecurity)
#include "test_security.moc"
