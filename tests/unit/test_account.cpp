#include "agent/hosting/Database.h"
#include "common/Account.h"
#include "common/AskedDomain.h"

#include <QRegularExpression>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv::hosting;

class TestAccount : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void acceptsAUsername_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("valid");
        QTest::newRow("three characters") << u"abc"_s << true;
        QTest::newRow("sixteen characters") << u"a234567890123456"_s << true;
        QTest::newRow("two characters") << u"ab"_s << false;
        QTest::newRow("seventeen characters") << u"a2345678901234567"_s << false;
        QTest::newRow("empty") << QString() << false;
        QTest::newRow("digit first") << u"1abc"_s << false;
        QTest::newRow("underscore") << u"abc_d"_s << false;
        QTest::newRow("upper case") << u"Abc"_s << false;
        QTest::newRow("trailing line feed") << u"abc\n"_s << false;
        QTest::newRow("embedded line feed") << u"ab\nc"_s << false;
        QTest::newRow("embedded NUL") << QString(u"abc"_s + QChar(0)) << false;
        QTest::newRow("leading dash") << u"-abc"_s << false;
        QTest::newRow("leading blank") << u" abc"_s << false;
        QTest::newRow("letter outside ASCII") << u"abcé"_s << false;
        QTest::newRow("digit outside ASCII") << u"abc\u0663"_s << false;
        for (const char *name :
             {"root", "admin", "www", "postgres", "corvane", "mail", "ftp", "nobody", "daemon", "backup"})
            QTest::newRow(name) << QString::fromLatin1(name) << false;
        QTest::newRow("a reserved name's beginning") << u"backups"_s << true;
    }

    void acceptsAUsername()
    {
        QFETCH(QString, name);
        QFETCH(bool, valid);
        QCOMPARE(validUsername(name), valid);
    }

    void normalisesADomain_data()
    {
        QTest::addColumn<QString>("given");
        QTest::addColumn<QString>("domain");
        const QString label63(63, u'a');
        const QString longest = u"%1.%1.%1.%2"_s.arg(label63, QString(61, u'b'));
        QTest::newRow("blanks, case and www") << u" WWW.Example.ORG "_s << u"example.org"_s;
        QTest::newRow("one www alone goes") << u"www.www.example.org"_s << u"www.example.org"_s;
        QTest::newRow("no dot") << u"localhost"_s << QString();
        QTest::newRow("too short") << u"a.b"_s << QString();
        QTest::newRow("shortest") << u"a.bc"_s << u"a.bc"_s;
        QTest::newRow("hyphen in the last label") << u"example.o-g"_s << u"example.o-g"_s;
        QTest::newRow("last label begins with a digit") << u"example.1rg"_s << QString();
        QTest::newRow("label begins with a hyphen") << u"-a.org"_s << QString();
        QTest::newRow("label ends with a hyphen") << u"a-.org"_s << QString();
        QTest::newRow("label of 63") << label63 + u".org"_s << label63 + u".org"_s;
        QTest::newRow("label of 64") << label63 + u"a.org"_s << QString();
        QTest::newRow("last label of 63") << u"a."_s + label63 << u"a."_s + label63;
        QTest::newRow("last label of 64") << u"a."_s + label63 + u'a' << QString();
        QTest::newRow("253 characters") << longest << longest;
        QTest::newRow("254 characters") << longest + u'b' << QString();
        QTest::newRow("trailing line feed is white space") << u"example.org\n"_s << u"example.org"_s;
        QTest::newRow("embedded line feed") << u"example.org\nx.org"_s << QString();
        QTest::newRow("trailing dot") << u"example.org."_s << QString();
        QTest::newRow("empty label") << u"example..org"_s << QString();
        QTest::newRow("underscore") << u"a_b.org"_s << QString();
        QTest::newRow("Kelvin sign is no k") << u"\u212Aelvin.org"_s << QString();
        QTest::newRow("dotted capital I is no i") << u"\u0130.example.org"_s << QString();
        QTest::newRow("empty") << QString() << QString();
        QTest::newRow("www alone") << u"www.org"_s << QString();
    }

    void normalisesADomain()
    {
        QFETCH(QString, given);
        QFETCH(QString, domain);
        QCOMPARE(normalDomain(given), domain);
    }

    void knowsWhatCreationStores()
    {
        for (const QString &domain : {u"example.org"_s, u"www.example.org"_s, u"www.www.example.org"_s, u"www.org"_s})
            QVERIFY2(isStoredDomain(domain), qPrintable(domain));
        for (const QString &domain :
             {u""_s, u"Example.org"_s, u" example.org"_s, u"example.org\n"_s, u"www."_s, u"example"_s, u"a b.org"_s})
            QVERIFY2(!isStoredDomain(domain), qPrintable(domain));
    }

    void whatIsAskedForIsStored()
    {
        for (const QString &domain : {u"example.org"_s, u"www.example.org"_s, u"www.www.example.org"_s, u"www.org"_s})
            QCOMPARE(normalDomain(askedDomain(domain)), domain);
    }

    void knowsAnSshKey_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("valid");
        const QString body(40, u'A');
        for (const char *type :
             {"ssh-ed25519", "ssh-rsa", "ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp521",
              "sk-ssh-ed25519@openssh.com", "sk-ecdsa-sha2-nistp256@openssh.com"})
            QTest::newRow(type) << QString::fromLatin1(type) + u' ' + body << true;
        const QString key = u"ssh-ed25519 "_s + body;
        QTest::newRow("39 characters") << u"ssh-ed25519 "_s + QString(39, u'A') << false;
        QTest::newRow("three padding characters") << key + u"==="_s << true;
        QTest::newRow("four padding characters") << key + u"===="_s << false;
        QTest::newRow("comment of 200") << key + u' ' + QString(200, u'c') << true;
        QTest::newRow("comment of 201") << key + u' ' + QString(201, u'c') << false;
        QTest::newRow("comment outside ASCII") << key + u" é"_s << false;
        QTest::newRow("trailing line feed") << key + u'\n' << false;
        QTest::newRow("two keys") << key + u'\n' + key << false;
        QTest::newRow("options before the key") << u"command=\"sh\" "_s + key << false;
        QTest::newRow("unknown type") << u"ssh-dss "_s + body << false;
        QTest::newRow("a dot of the type replaced") << u"sk-ssh-ed25519@opensshxcom "_s + body << false;
        QTest::newRow("tab for the blank") << u"ssh-ed25519\t"_s + body << false;
    }

    void knowsAnSshKey()
    {
        QFETCH(QString, text);
        QFETCH(bool, valid);
        QCOMPARE(validKey(text), valid);
    }

    void readsTheDomainOutOfAComment()
    {
        QCOMPARE(domainIn(u"Corvane account,example.org"_s), u"example.org"_s);
        QCOMPARE(domainIn(u"Corvane account,example.org,more"_s), u"example.org"_s);
        QCOMPARE(domainIn(u"Corvane account"_s), QString());
        QCOMPARE(domainIn(accountComment(u"example.org"_s)), u"example.org"_s);
    }

    void theMarkerIsAPrefix()
    {
        QVERIFY(hasMarker(u"Corvane account"_s));
        QVERIFY(hasMarker(u"Corvane accounts and more"_s));
        QVERIFY(!hasMarker(u"corvane account,example.org"_s));
        QVERIFY(!hasMarker(u" Corvane account"_s));
    }

    void makesPasswordsOfTheUrlSafeAlphabet()
    {
        const QRegularExpression alphabet(u"\\A[A-Za-z0-9_-]{24}\\z"_s);
        QSet<QString> seen;
        for (int i = 0; i < 1000; ++i) {
            const QString password = randomPassword();
            QVERIFY(alphabet.match(password).hasMatch());
            seen.insert(password);
        }
        QCOMPARE(seen.size(), 1000);
    }
};

QTEST_APPLESS_MAIN(TestAccount)
#include "test_account.moc"
