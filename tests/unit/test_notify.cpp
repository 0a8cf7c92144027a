#include "ctl/notify/Failures.h"
#include "ctl/notify/Message.h"
#include "ctl/notify/Notify.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;

class TestNotify : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_folder;

    Ways waysOf(const QByteArray &section)
    {
        const QString path = m_folder.filePath(u"corvane.ini"_s);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write("[notify]\n" + section) < 0)
            qFatal("cannot write %s", qPrintable(path));
        file.close();
        return waysIn(QSettings(path, QSettings::IniFormat));
    }

private Q_SLOTS:
    void takesUsersAndAddressesAlone_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("taken");
        QTest::newRow("user") << u"root"_s << true;
        QTest::newRow("address") << u"a.b+c=d_e-f@mail.example.org"_s << true;
        QTest::newRow("one letter") << u"a@b"_s << true;
        QTest::newRow("64 in the name") << QString(64, u'x') + u"@b"_s << true;
        QTest::newRow("65 in the name") << QString(65, u'x') + u"@b"_s << false;
        QTest::newRow("empty") << QString() << false;
        QTest::newRow("option") << u"-oQ/tmp"_s << false;
        QTest::newRow("line feed behind") << u"root\n"_s << false;
        QTest::newRow("header") << u"root\nBcc:x"_s << false;
        QTest::newRow("NUL") << u"root"_s + QChar(u'\0') << false;
        QTest::newRow("two signs") << u"a@b@c"_s << false;
        QTest::newRow("dot at the end") << u"a@b."_s << false;
        QTest::newRow("pipe") << u"|/bin/sh"_s << false;
        QTest::newRow("file") << u"/tmp/x"_s << false;
        QTest::newRow("blank") << u"a b"_s << false;
        QTest::newRow("letters of others") << u"\u00e4@b"_s << false;
    }

    void takesUsersAndAddressesAlone()
    {
        QFETCH(QString, text);
        QTEST(isRecipient(text), "taken");
    }

    void takesUnitsAlone_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("taken");
        QTest::newRow("ours") << u"corv-backup.service"_s << true;
        QTest::newRow("instance") << u"postgresql@15-main.service"_s << true;
        QTest::newRow("no ending") << u"corv-backup"_s << false;
        QTest::newRow("timer") << u"corv-backup.timer"_s << false;
        QTest::newRow("path") << u"../x.service"_s << false;
        QTest::newRow("hidden") << u".x.service"_s << false;
        QTest::newRow("line feed") << u"x.service\n"_s << false;
    }

    void takesUnitsAlone()
    {
        QFETCH(QString, text);
        QTEST(isUnitName(text), "taken");
    }

    void readsTheSettings()
    {
        QCOMPARE(waysOf("mail=root, a@b  c\n").mail, QStringList({u"root"_s, u"a@b"_s, u"c"_s}));
        QCOMPARE(waysOf("command=/bin/true --x a,b\n").command, QStringList({u"/bin/true"_s, u"--x"_s, u"a,b"_s}));
        QCOMPARE(waysOf("command=\"/bin/true \\\"a b\\\" c\"\n").command,
                 QStringList({u"/bin/true"_s, u"a b"_s, u"c"_s}));
        QVERIFY(waysOf("").areNone());
        QVERIFY(waysOf("mail=\ncommand=\n").areNone());
        QVERIFY(waysOf("mail=\ncommand=\n").problems.isEmpty());
    }

    void tellsNoMoreThanTwentyPeople()
    {
        const Ways ways = waysOf("mail=" + QByteArray("a ").repeated(21) + '\n');
        QCOMPARE(ways.mail.size(), 20);
        QCOMPARE(ways.problems.size(), 1);
    }

    void keepsAHeaderOnOneLineOfAscii()
    {
        const Event event = {u"web\u00e4"_s, u"x.service"_s, u"exit-code\r\nBcc: you@example.org"_s, 0, {}};
        QCOMPARE(headline(event), u"web?: x.service failed (exit-code Bcc: you@example.org)"_s);
        QCOMPARE(mailText({u"root"_s}, event).count('\n') - messageText(event).count(u'\n'), 8);
    }

    void boundsTheMessage()
    {
        const Event event = {u"web1"_s, u"x.service"_s, u"signal"_s, 0,
                             (QByteArray(100'000, 'x') + "\n").repeated(50) + "\x1b[2J\xff last\n"};
        const QString text = messageText(event);
        QVERIFY(text.size() < 12'000);
        QVERIFY(text.contains(u"    \\x1b[2J\ufffd last\n"_s));
        for (const QString &line : text.split(u'\n'))
            QVERIFY(line.size() <= 300);
    }

    void saysHowLongAgo()
    {
        QCOMPARE(failureSentence({u"x.service"_s, 1000}, 8260),
                 u"x.service failed 2 h 1 min ago and has not succeeded since"_s);
        QCOMPARE(failureSentence({u"x.service"_s, 2000}, 1000),
                 u"x.service failed 0 s ago and has not succeeded since"_s);
    }
};

QTEST_GUILESS_MAIN(TestNotify)
#include "test_notify.moc"
