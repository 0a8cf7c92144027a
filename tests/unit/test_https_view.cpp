#include "common/Certificate.h"
#include "common/HttpsOptions.h"
#include "common/HttpsState.h"
#include "ctl/doctor/Https.h"
#include "ctl/https/Apache.h"
#include "ctl/https/Own.h"
#include "ctl/https/View.h"

#include <QFile>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv;
using namespace corv::https;

namespace {

// The state in which these names lead here.
State leadingHere(const QStringList &names)
{
    State state;
    for (const QString &name : names)
        state.names[name].leadsHere = true;
    return state;
}

constexpr qint64 kNow = 1800000000;

} // namespace

class TestHttpsView : public QObject
{
    Q_OBJECT

private Q_SLOTS:
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
        state.warned[u"shop.example"_s] = 14;
        state.missed[u"old.example"_s] = kNow;
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
        QVERIFY(holdsState(stateText(state)) && holdsState(stateText({})));
        for (const char *damaged : {"", "no JSON", "[]", "{}", "{\"sites\": {"})
            QVERIFY2(!holdsState(damaged), damaged);
    }

    void theStateOfManySitesIsSmallEnoughToBeReadAgain()
    {
        State state;
        const QString worst = QString(QChar(1)).repeated(300); // six bytes each
        for (int number = 0; number < 10'000; ++number) {
            const QString domain = u"%1.example"_s.arg(number, 60, 10, QChar(u'x'));
            SiteState &site = state.sites[u"account%1"_s.arg(number)];
            site.domain = domain;
            site.names = {domain, u"www."_s + domain};
            site.leftOut = worst;
            state.names[domain].said = state.names[u"www."_s + domain].said = u"does not answer on port 80"_s;
            state.orders[domain].said = worst;
        }
        QVERIFY(stateText(state).size() <= kLargestState);
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
        // No name is one of those with something else in it, which some would read up to there.
        QByteArray odd = der;
        QVERIFY(odd.count("\x82\x0cShop.example") == 1);
        odd.replace("\x82\x0cShop.example", QByteArray("\x82\x0cShop\0example", 14));
        QCOMPARE(parseCertificate(asPem(odd))->names, QStringList{u"www.shop.example"_s});
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
        const Certificate certificate{kNow - daysGone * day, kNow + (90 - daysGone) * day, {}};
        const ctl::HttpsSite site = ctl::judgeSite(u"shop"_s, state, {}, certificate, kNow);
        QCOMPARE(ctl::stageWord(site.stage), word);
        QCOMPARE(site.remark, remark);
        QCOMPARE(site.ends, certificate.ends);
    }

    void saysOfASiteThatIsServedThatItsNameLeadsElsewhere()
    {
        State state;
        state.sites[u"shop"_s] = {u"shop.example"_s, {u"shop.example"_s}, {}, {}, {}, 0};
        state.names[u"shop.example"_s].said = u"192.0.2.1 does not answer on port 80"_s;
        const Certificate certificate{kNow, kNow + 7776000, {}};
        const ctl::HttpsSite site = ctl::judgeSite(u"shop"_s, state, {}, certificate, kNow);
        QCOMPARE(ctl::stageWord(site.stage), u"served"_s);
        QCOMPARE(site.remark, u"shop.example: 192.0.2.1 does not answer on port 80"_s);
        // Of one that was brought nothing is renewed, wherever its name leads.
        SiteOptions brought;
        brought.own = u"shop-a"_s;
        QCOMPARE(ctl::judgeSite(u"shop"_s, state, brought, certificate, kNow).remark, QString());
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
};

QTEST_APPLESS_MAIN(TestHttpsView)
#include "test_https_view.moc"
