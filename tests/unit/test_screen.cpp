#include "ctl/Keys.h"
#include "ctl/Meant.h"
#include "ctl/remote/SshLogin.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Follow.h"
#include "ctl/screen/SystemdTime.h"
#include "ctl/screen/Table.h"
#include "ctl/screen/Terminal.h"

#include <QTest>

#include <ctime>
#include <limits>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;

// What the client makes of texts, sizes and times on their way to a terminal.
class TestScreen : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void escapes_data();
    void escapes();
    void everyHarmfulCharacterIsWrittenOut();
    void linesStayLines();
    void jsonStaysTheSameJson();
    void bytesForPeople_data();
    void bytesForPeople();
    void spansForPeople_data();
    void spansForPeople();
    void textsAreShortened_data();
    void textsAreShortened();
    void whatAToolSaidIsOneSentence_data();
    void whatAToolSaidIsOneSentence();
    void timesOfSystemdAreRead_data();
    void timesOfSystemdAreRead();
    void theNearestWordWasMeant_data();
    void theNearestWordWasMeant();
    void theOnlyNameIsNamed();
    void tablesFit_data();
    void tablesFit();
    void logsAreContinued_data();
    void logsAreContinued();
    void barsFit();
    void keysAreRead();
    void portsOfSshAreRead_data();
    void portsOfSshAreRead();
};

void TestScreen::escapes_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("shown");
    QTest::newRow("nothing") << QString() << QString();
    QTest::newRow("plain") << u"a b_c/ü 画 ✓"_s << u"a b_c/ü 画 ✓"_s;
    QTest::newRow("escape") << u"\x1b[31mred"_s << u"\\x1b[31mred"_s;
    QTest::newRow("C1") << u"\u009b31m"_s << u"\\x9b31m"_s;
    QTest::newRow("zero") << QString(QChar(u'\0')) << u"\\x00"_s;
    QTest::newRow("lines") << u"a\nb\r\tc"_s << u"a\\nb\\r\\tc"_s;
    QTest::newRow("backslash") << u"a\\nb"_s << u"a\\\\nb"_s;
    QTest::newRow("override") << u"\u202egpj.exe"_s << u"\\u202egpj.exe"_s;
    QTest::newRow("mark") << u"\ufeffa"_s << u"\\ufeffa"_s;
    QTest::newRow("outside the first plane") << u"\U0001F600"_s << u"\U0001F600"_s;
    QTest::newRow("tag") << u"\U000E0041"_s << u"\\U000e0041"_s;
    QTest::newRow("half a pair") << QString(QChar(0xd83d)) + u'a' << u"\\ud83da"_s;
    QTest::newRow("other half") << u'a' + QString(QChar(0xde00)) << u"a\\ude00"_s;
}

void TestScreen::escapes()
{
    QFETCH(QString, text);
    QTEST(escaped(text), "shown");
}

void TestScreen::everyHarmfulCharacterIsWrittenOut()
{
    for (char32_t character = 0; character < 0x30000; ++character) {
        const bool surrogate = character >= 0xd800 && character < 0xe000;
        const QString text = surrogate ? QString(QChar(static_cast<char16_t>(character)))
                                       : QStringView(QChar::fromUcs4(character)).toString();
        const bool kept = escaped(text) == text;
        if (character < 0x20 || (character >= 0x7f && character < 0xa0) || surrogate)
            QVERIFY(!kept);
        if (character >= 0x21 && character < 0x7f && character != U'\\')
            QVERIFY(kept);
        QVERIFY(!kept || QChar::isPrint(character));
    }
}

void TestScreen::linesStayLines()
{
    QCOMPARE(escapedLines(u"a\n\tb\\c\r\x1b\n"_s), u"a\n\tb\\c\\r\\x1b\n"_s);
}

void TestScreen::jsonStaysTheSameJson()
{
    QCOMPARE(escapedJson("{\"a\":\"\xc2\x9b \xe2\x80\xae \xf3\xa0\x81\x81 \xc3\xbc\\n\"}"),
             QByteArray("{\"a\":\"\\u009b \\u202e \\udb40\\udc41 \xc3\xbc\\n\"}"));
}

void TestScreen::bytesForPeople_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<QString>("shown");
    QTest::newRow("unknown") << qint64(-1) << u"unknown"_s;
    QTest::newRow("none") << qint64(0) << u"0 B"_s;
    QTest::newRow("below") << qint64(1023) << u"1023 B"_s;
    QTest::newRow("at") << qint64(1024) << u"1.0 KiB"_s;
    QTest::newRow("never 1024.0") << qint64(1024 * 1024 - 1) << u"1.0 MiB"_s;
    QTest::newRow("half") << qint64(1536LL * 1024 * 1024) << u"1.5 GiB"_s;
    QTest::newRow("most") << std::numeric_limits<qint64>::max() << u"8.0 EiB"_s;
}

void TestScreen::bytesForPeople()
{
    QFETCH(qint64, bytes);
    QTEST(humanBytes(bytes), "shown");
}

void TestScreen::spansForPeople_data()
{
    QTest::addColumn<qint64>("seconds");
    QTest::addColumn<QString>("shown");
    QTest::newRow("seconds") << qint64(59) << u"59 s"_s;
    QTest::newRow("minutes") << qint64(3599) << u"59 min"_s;
    QTest::newRow("hours") << qint64(86399) << u"23 h 59 min"_s;
    QTest::newRow("days") << qint64(90000) << u"1 d 1 h"_s;
}

void TestScreen::spansForPeople()
{
    QFETCH(qint64, seconds);
    QTEST(humanSeconds(seconds), "shown");
}

void TestScreen::textsAreShortened_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("columns");
    QTest::addColumn<QString>("shown");
    QTest::newRow("fits") << u"abcde"_s << 5 << u"abcde"_s;
    QTest::newRow("does not") << u"abcdef"_s << 5 << u"abcd…"_s;
    QTest::newRow("wide ones") << u"画画画"_s << 5 << u"画画…"_s;
    QTest::newRow("a wide one between") << u"画画画"_s << 4 << u"画…"_s;
    QTest::newRow("marks take no column") << u"e\u0301e\u0301e\u0301"_s << 3 << u"e\u0301e\u0301e\u0301"_s;
    QTest::newRow("of megabytes") << QString(10'000'000, u'x') << 4 << u"xxx…"_s;
}

void TestScreen::textsAreShortened()
{
    QFETCH(QString, text);
    QFETCH(int, columns);
    QTEST(shortened(text, columns), "shown");
    QVERIFY(displayWidth(shortened(text, columns)) <= columns);
}

void TestScreen::whatAToolSaidIsOneSentence_data()
{
    QTest::addColumn<QString>("said");
    QTest::addColumn<QString>("sentence");
    QTest::newRow("nothing") << QString() << QString();
    QTest::newRow("one") << u"no such rule"_s << u"no such rule"_s;
    QTest::newRow("lines") << u"pg_dump failed: lost\ncannot go on\n"_s << u"pg_dump failed: lost; cannot go on"_s;
    QTest::newRow("after a sign") << u"Syntax error on line 3:\n\tInvalid command 'x'.\nSee above"_s
                                  << u"Syntax error on line 3: Invalid command 'x'. See above"_s;
    QTest::newRow("tabs and returns") << u"a\tb  c\r\n\r\n\r\nd"_s << u"a b c; d"_s;
    QTest::newRow("an escape stays for escaping") << u"a\x1b[31m\nb"_s << u"a\x1b[31m; b"_s;
}

void TestScreen::whatAToolSaidIsOneSentence()
{
    QFETCH(QString, said);
    QTEST(oneSentence(said), "sentence");
}

void TestScreen::timesOfSystemdAreRead_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<qint64>("seconds"); // -1: none
    QTest::newRow("UTC") << u"Tue 2026-01-06 03:42:10 UTC"_s << qint64(1767670930);
    QTest::newRow("winter here") << u"Tue 2026-01-06 04:42:10 CET"_s << qint64(1767670930);
    QTest::newRow("summer here") << u"Mon 2026-07-06 05:42:10 CEST"_s << qint64(1783309330);
    QTest::newRow("another season's letters") << u"Tue 2026-01-06 03:42:10 CEST"_s << qint64(-1);
    QTest::newRow("letters of elsewhere") << u"Tue 2026-01-06 03:42:10 PST"_s << qint64(-1);
    QTest::newRow("numbers") << u"Tue 2026-01-06 06:42:10 +03"_s << qint64(1767670930);
    QTest::newRow("half hours") << u"Tue 2026-01-06 00:12:10 -0330"_s << qint64(1767670930);
    QTest::newRow("no zone") << u"Tue 2026-01-06 03:42:10"_s << qint64(-1);
    QTest::newRow("no time") << u"Tue 2026-13-06 03:42:10 UTC"_s << qint64(-1);
    QTest::newRow("nonsense") << u"n/a"_s << qint64(-1);
    QTest::newRow("empty") << QString() << qint64(-1);
}

void TestScreen::timesOfSystemdAreRead()
{
    qputenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
    tzset();
    QFETCH(QString, text);
    QTEST(systemdTime(text).value_or(-1), "seconds");
}

void TestScreen::theNearestWordWasMeant_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("word");
    QTest::newRow("one missing") << u"acount"_s << u"account"_s;
    QTest::newRow("one too many") << u"acccount"_s << u"account"_s;
    QTest::newRow("one wrong") << u"filr"_s << u"file"_s;
    QTest::newRow("swapped") << u"aotp"_s << u"atop"_s;
    QTest::newRow("itself") << u"file"_s << u"file"_s;
    QTest::newRow("far off") << u"nosuch"_s << QString();
    QTest::newRow("as near to two") << u"bat"_s << QString();
    QTest::newRow("empty") << QString() << QString();
    QTest::newRow("of megabytes") << QString(10'000'000, u'a') << QString();
}

void TestScreen::theNearestWordWasMeant()
{
    QFETCH(QString, typed);
    QTEST(meant(typed, {u"account"_s, u"file"_s, u"atop"_s, u"ban"_s, u"bar"_s}), "word");
}

void TestScreen::theOnlyNameIsNamed()
{
    QCOMPARE(meantHint(u"account"_s, u"x"_s, {u"shop"_s}), u"the only account is 'shop'"_s);
    QCOMPARE(meantHint(u"account"_s, u"shp"_s, {u"shop"_s, u"blog"_s}), u"did you mean 'shop'?"_s);
    QCOMPARE(meantHint(u"account"_s, u"nosuch"_s, {u"shop"_s, u"blog"_s}), QString());
    QCOMPARE(meantHint(u"backup"_s, u"2026-01-05_031501"_s, {u"2026-01-05_031500"_s, u"2026-01-04_031500"_s}),
             u"did you mean '2026-01-05_031500'?"_s);
    QCOMPARE(meantHint(u"account"_s, u"x"_s, {}), QString());
}

void TestScreen::tablesFit_data()
{
    QTest::addColumn<QStringList>("cells");
    QTest::newRow("one wide") << QStringList{QString(200, u'x'), u"y"_s};
    QTest::newRow("all wide") << QStringList{QString(200, u'x'), QString(100, u'y'), QString(100, u'z')};
    QTest::newRow("two alike") << QStringList{QString(60, u'x'), QString(60, u'y')};
    QTest::newRow("wide signs") << QStringList{QString(100, u'画'), u"y"_s};
    QTest::newRow("just") << QStringList{QString(77, u'x'), u"y"_s};
    QTest::newRow("many") << QStringList(10, QString(30, u'x'));
}

void TestScreen::tablesFit()
{
    QFETCH(QStringList, cells);
    QStringList titles;
    Row row;
    for (const QString &cell : cells) {
        titles.append(u"T"_s);
        row.append(text(cell));
    }
    Terminal terminal;
    terminal.columns = 80;
    for (const QString &line : tableText(terminal, titles, {row}).split(u'\n'))
        QVERIFY(displayWidth(line) <= 80);
    terminal.columns = 40;
    for (const QString &line : tableText(terminal, titles, {row}).split(u'\n'))
        QVERIFY(displayWidth(line) <= 40);
    terminal.columns = 0;
    for (const QString &cell : cells)
        QVERIFY(tableText(terminal, titles, {row}).contains(cell));
}

void TestScreen::logsAreContinued_data()
{
    QTest::addColumn<QString>("before");
    QTest::addColumn<QString>("now");
    QTest::addColumn<QString>("fresh");
    QTest::newRow("from nothing") << QString() << u"abc"_s << u"abc"_s;
    QTest::newRow("nothing new") << u"abc"_s << u"abc"_s << QString();
    QTest::newRow("longer") << u"abc"_s << u"abcd"_s << u"d"_s;
    QTest::newRow("moved on") << u"abc"_s << u"bcde"_s << u"de"_s;
    QTest::newRow("far on") << u"abc"_s << u"xyz"_s << u"xyz"_s;
    QTest::newRow("repeating lines") << u"aaa"_s << u"aaa"_s << QString();
    QTest::newRow("longest end counts") << u"abab"_s << u"ababc"_s << u"c"_s;
}

void TestScreen::logsAreContinued()
{
    QFETCH(QString, before);
    QFETCH(QString, now);
    const auto lines = [](const QString &letters) { return letters.split(QString(), Qt::SkipEmptyParts); };
    QTEST(newLines(lines(before), lines(now)).join(QString()), "fresh");
}

void TestScreen::barsFit()
{
    for (const int columns : {20, 40, 79, 200}) {
        const QString line = progressLine(QString(100, u'n'), 50'000'000, 100'000'000, 2.5, columns);
        QVERIFY(line.contains(u" 50 %  47.7 MiB  19.1 MiB/s  2 s left"_s));
        QVERIFY(columns < 60 || displayWidth(line) <= columns);
    }
    QCOMPARE(progressLine(u"a"_s, 50, 100, 1, 79),
             u"a  [###############...............]   50 %  50 B  50 B/s  1 s left"_s);
    QCOMPARE(progressLine(u"a"_s, 2048, -1, 2, 79), u"a  2.0 KiB  1.0 KiB/s"_s);
    QCOMPARE(progressLine(u"a"_s, 0, 0, 0, 79), u"a  0 B  0 B/s"_s);
}

void TestScreen::keysAreRead()
{
    // As ssh-keygen -l shows it.
    const QString key = u"ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIJx0m0nV1bqvfXzYv4hS2Yw3sLkqF5oYzZ8dQ2mWm1aB"_s;
    const QString fingerprint = u"SHA256:WnL2T6OyaDgWYL+Xl34Fqhw+bELijzk/dbkDKVW33vo"_s;
    const QList<PublicKey> keys =
        parseKeys(u"# comment\n\n"_s + key + u" a b\r\ncommand=\"x y\" "_s + key + u"\nnonsense\n"_s);
    QCOMPARE(keys.size(), 3);
    QCOMPARE(keys[0].comment, u"a b"_s);
    QCOMPARE(keys[0].type, u"ssh-ed25519"_s);
    QCOMPARE(keys[0].fingerprint, fingerprint);
    QCOMPARE(keys[1].comment, QString());
    QCOMPARE(keys[1].type, u"ssh-ed25519 (options)"_s);
    QCOMPARE(keys[1].fingerprint, fingerprint);
    QCOMPARE(keys[2].comment, u"nonsense"_s);
    QCOMPARE(keys[2].type, u"no key"_s);
}

void TestScreen::portsOfSshAreRead_data()
{
    QTest::addColumn<QByteArray>("connection");
    QTest::addColumn<QString>("port");
    QTest::newRow("none") << QByteArray() << QString();
    QTest::newRow("usual") << QByteArray("192.0.2.1 50000 192.0.2.2 22") << u"22"_s;
    QTest::newRow("IPv6") << QByteArray("2001:db8::1 50000 2001:db8::2 2222") << u"2222"_s;
    QTest::newRow("too short") << QByteArray("192.0.2.1 50000 22") << QString();
    QTest::newRow("too long") << QByteArray("192.0.2.1 50000 192.0.2.2 22 ") << QString();
}

void TestScreen::portsOfSshAreRead()
{
    QFETCH(QByteArray, connection);
    QTEST(sshPortIn(connection), "port");
}

QTEST_APPLESS_MAIN(TestScreen)
#include "test_screen.moc"
