#include "ctl/Interrupt.h"
#include "ctl/commands/Status.h"
#include "ctl/remote/Hosts.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Wrap.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;

namespace {

// The lines of one topic, each with a mark where it needs attention.
QStringList linesOf(const QString &topic, const Replies &replies, std::optional<qsizetype> accounts = 1)
{
    QStringList found;
    QString current;
    for (const StatusLine &line : statusLines(replies, accounts, 1'000'000'000)) {
        current = line.topic.isEmpty() ? current : line.topic;
        if (current == topic)
            found.append((line.needsAttention ? u"! "_s : QString()) + line.text);
    }
    return found;
}

Replies one(const QString &command, QJsonObject reply)
{
    reply.insert(u"ok"_s, true);
    return {{command, reply}};
}

} // namespace

class TestRemote : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void knowsANameOfAHost_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<bool>("isOne");
        QTest::newRow("name") << u"web1"_s << true;
        QTest::newRow("with a user") << u"root@web1.example.org"_s << true;
        QTest::newRow("address") << u"root@2001:db8::1"_s << true;
        QTest::newRow("address in brackets") << u"ssh://root@[2001:db8::1]:2222"_s << true;
        QTest::newRow("dash within") << u"web-1"_s << true;
        QTest::newRow("empty") << QString() << false;
        QTest::newRow("user alone") << u"root@"_s << false;
        QTest::newRow("no user") << u"@web1"_s << false;
        QTest::newRow("dash") << u"-oProxyCommand=x"_s << false;
        QTest::newRow("dash behind the user") << u"root@-oX"_s << false;
        QTest::newRow("blank") << u"web 1"_s << false;
        QTest::newRow("blank of another kind") << u"web\u20031"_s << false;
        QTest::newRow("trailing line feed") << u"web1\n"_s << false;
        QTest::newRow("zero byte") << u"web1"_s + QChar(u'\0') << false;
        QTest::newRow("escape") << u"web\x1b[1m"_s << false;
        QTest::newRow("C1 control") << u"web\u009b1"_s << false;
        QTest::newRow("direction override") << u"web\u202e1"_s << false;
        QTest::newRow("command") << u"$(touch x)"_s << false;
        QTest::newRow("quote") << u"a'b"_s << false;
    }
    void knowsANameOfAHost()
    {
        QFETCH(QString, host);
        QTEST(hostProblem(host).isEmpty(), "isOne");
    }

    void takesWholeLinesOnly()
    {
        QByteArray text = "one\ntwo\nthr";
        QCOMPARE(takeLines(&text, "web1: ", false), QByteArray("web1: one\nweb1: two\n"));
        QCOMPARE(text, QByteArray("thr"));
        text += "ee";
        QCOMPARE(takeLines(&text, "web1: ", true), QByteArray("web1: three\n"));
        QCOMPARE(text, QByteArray());
        QCOMPARE(takeLines(&text, "web1: ", true), QByteArray());
    }

    void sumsUpWhatBecameOfHosts()
    {
        QCOMPARE(hostsSummary({"a", "b"}, {0, 0}), u"2 hosts: 2 done"_s);
        QCOMPARE(hostsSummary({"a", "b", "c", "d", "e\x1b"}, {0, 1, 3, 4, 77}),
                 u"5 hosts: 1 done, 1 refused or at fault (b), 2 no connection (c e\\x1b), 1 timed out (d)"_s);
    }

    // Also in what is done because the client was interrupted: the way back from a switch.
    void readsOnWhenAnotherChildEnds_data()
    {
        QTest::addColumn<bool>("wasInterrupted");
        QTest::newRow("as usual") << false;
        QTest::newRow("after an interrupt") << true;
    }
    void readsOnWhenAnotherChildEnds()
    {
        QFETCH(bool, wasInterrupted);
        const InterruptGuard guard;
        if (wasInterrupted)
            QCOMPARE(::raise(SIGINT), 0);
        QCOMPARE(interrupted(), wasInterrupted);
        const QTemporaryDir folder;
        QFile ssh(folder.filePath(u"ssh"_s));
        QVERIFY(ssh.open(QIODevice::WriteOnly));
        ssh.write("#!/bin/sh\nsleep 0.6; echo all; sleep 0.6\n");
        QVERIFY(ssh.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
        ssh.close();
        const QByteArray before = qgetenv("PATH");
        qputenv("PATH", folder.path().toLocal8Bit() + ':' + before);
        Remote remote;
        QCOMPARE(remote.start(u"web1"_s, {u"true"_s}), QString());
        qputenv("PATH", before);

        // One ends while it is read, one while its end is waited for. Some versions of Qt have a handler like this one.
        struct sigaction handler = {};
        handler.sa_handler = [](int) {};
        struct sigaction kept = {};
        QCOMPARE(::sigaction(SIGCHLD, &handler, &kept), 0);
        QProcess first;
        first.start(u"sleep"_s, {u"0.2"_s});
        QProcess second;
        second.start(u"sleep"_s, {u"0.9"_s});
        QCOMPARE(remote.readAll(10, 100), std::optional<QByteArray>("all\n"));
        QCOMPARE(remote.wait(), 0);
        QVERIFY(first.waitForFinished() && second.waitForFinished());
        QCOMPARE(::sigaction(SIGCHLD, &kept, nullptr), 0);
    }

    void wrapsAtBlanks()
    {
        QCOMPARE(wrapped(u"one two three"_s, 7), QStringList({u"one two"_s, u"three"_s}));
        QCOMPARE(wrapped(u"one two three"_s, 6), QStringList({u"one"_s, u"two"_s, u"three"_s}));
        QCOMPARE(wrapped(u"longest one"_s, 3), QStringList({u"longest"_s, u"one"_s}));
        QCOMPARE(wrapped(u"one two"_s, 0), QStringList({u"one two"_s}));
        QCOMPARE(wrapped({}, 10), QStringList({QString()}));
    }

    void aFailedReplyIsShownWithItsError()
    {
        const Replies replies = {{u"backup.status"_s, QJsonObject{{u"ok"_s, false}, {u"error"_s, u"no such thing"_s}}}};
        QCOMPARE(linesOf(u"Backup"_s, replies), QStringList({u"! no such thing"_s}));
        QCOMPARE(linesOf(u"Firewall"_s, replies), QStringList({u"! no reply"_s}));
    }

    void judgesDisksByWhatIsFree()
    {
        const auto disk = [](qint64 avail) {
            return one(u"system.disks"_s, {{u"disks"_s, QJsonArray{QJsonObject{{u"mount"_s, u"/"_s},
                                                                               {u"total"_s, qint64(107'374'182'400)},
                                                                               {u"avail"_s, avail}}}}});
        };
        QCOMPARE(linesOf(u"Disks"_s, disk(10'737'418'240)), QStringList({u"/: 10.0 GiB of 100.0 GiB free"_s}));
        QCOMPARE(linesOf(u"Disks"_s, disk(10'737'418'239)).first().left(2), u"! "_s);
    }

    void knowsAccountsFromTheBestSourceThereIs()
    {
        QCOMPARE(linesOf(u"Accounts"_s, {}, 3), QStringList({u"3"_s}));
        QCOMPARE(linesOf(u"Accounts"_s, {}, {}), QStringList({u"their number is known on the server alone"_s}));
        const Replies usage = one(u"hosting.usage"_s, {{u"usage"_s, QJsonObject{{u"a"_s, 1024}, {u"b"_s, 1024}}}});
        QCOMPARE(linesOf(u"Accounts"_s, usage, {}), QStringList({u"2, 2.0 KiB together"_s}));
        // A backup tells of the accounts that there were then.
        const Replies backup =
            one(u"backup.status"_s,
                {{u"backups"_s, QJsonArray{QJsonObject{{u"accounts"_s, QJsonArray{QJsonObject(), QJsonObject()}}}}}});
        QCOMPARE(linesOf(u"Accounts"_s, backup, {}), QStringList({u"their number is known on the server alone"_s}));
    }

    void judgesUpdates()
    {
        const qint64 now = 1'000'000'000;
        const auto updates = [](int security, const QJsonValue &checked) {
            return one(
                u"updates.status"_s,
                {{u"updates"_s, 5}, {u"security"_s, security}, {u"lastCheck"_s, checked}, {u"automatic"_s, true}});
        };
        QCOMPARE(linesOf(u"Updates"_s, updates(0, now)), QStringList({u"5, 0 of them for security, automatic"_s}));
        QCOMPARE(linesOf(u"Updates"_s, updates(1, now)), QStringList({u"! 5, 1 of them for security, automatic"_s}));
        QCOMPARE(linesOf(u"Updates"_s, updates(0, QJsonValue::Null)),
                 QStringList({u"! 5, 0 of them for security, never looked for, automatic"_s}));
        QCOMPARE(linesOf(u"Updates"_s, updates(0, now - 691'200)),
                 QStringList({u"! 5, 0 of them for security, last looked for 8 d 0 h ago, automatic"_s}));
    }

    void tellsThatABackupHasNoList()
    {
        const Replies whole =
            one(u"backup.status"_s, {{u"next"_s, u"x"_s},
                                     {u"backups"_s, QJsonArray{QJsonObject{{u"created"_s, 1'000'000'000},
                                                                           {u"accounts"_s, QJsonArray()},
                                                                           {u"errors"_s, QJsonArray()}}}}});
        QVERIFY(linesOf(u"Backup"_s, whole).first().endsWith(u", 0 accounts, 0 B, no errors"_s));
        const Replies bare =
            one(u"backup.status"_s,
                {{u"next"_s, u"x"_s}, {u"backups"_s, QJsonArray{QJsonObject{{u"created"_s, 1'000'000'000}}}}});
        QVERIFY(linesOf(u"Backup"_s, bare).first().endsWith(u", accounts unknown, 0 B, errors unknown"_s));
        QVERIFY(linesOf(u"Backup"_s, bare).first().startsWith(u'!'));
        QVERIFY(!linesOf(u"Backup"_s, whole).first().startsWith(u'!'));
    }

    void headsTheScreen()
    {
        QCOMPARE(statusHeading(u"web1"_s, {{u"a"_s, {}, false}}), u"web1 is well"_s);
        QCOMPARE(statusHeading(u"web1"_s, {{u"a"_s, {}, true}}), u"web1 needs attention in 1 place"_s);
        QCOMPARE(statusHeading(u"web1"_s, {{u"a"_s, {}, true}, {u"b"_s, {}, true}}),
                 u"web1 needs attention in 2 places"_s);
        QCOMPARE(statusHeading(u"web1"_s, {{u"a"_s, {}, false}, {u"b"_s, {}, false, true}}),
                 u"web1 is well as far as it tells"_s);
        QCOMPARE(statusHeading(u"web1"_s, {{u"a"_s, {}, true}, {u"b"_s, {}, false, true}}),
                 u"web1 needs attention in 1 place"_s);
    }
};

QTEST_APPLESS_MAIN(TestRemote)
#include "test_remote.moc"
