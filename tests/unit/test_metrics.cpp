#include "common/Fd.h"
#include "ctl/Described.h"
#include "ctl/metrics/AgentLines.h"
#include "ctl/metrics/Apart.h"
#include "ctl/metrics/Exposition.h"
#include "ctl/metrics/JournalReader.h"
#include "ctl/metrics/Sample.h"
#include "ctl/metrics/Table.h"
#include "ctl/metrics/Textfile.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <csignal>
#include <limits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;

namespace {

const auto kCursor = u"s=0123456789abcdef0123456789abcdef;i=1f;b=fedcba9876543210fedcba9876543210;m=2a;"
                     "t=64b5f5c1a2b3c;x=9d8c7b6a5f4e3d2c"_s;

QByteArray entryLine(const QByteArray &message, const QByteArray &unit = "corv-agent.service",
                     const QByteArray &uid = R"("0")", const QByteArray &program = "/usr/libexec/corvane/corv-agent")
{
    return R"({"__CURSOR":")" + kCursor.toUtf8() + R"(","MESSAGE":)" + message + R"(,"_SYSTEMD_UNIT":")" + unit +
           R"(","_UID":)" + uid + R"(,"_EXE":")" + program + "\"}\n";
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("nothing");
}

} // namespace

class TestMetrics : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void namesFollowTheConventions()
    {
        static const QRegularExpression form(QRegularExpression::anchoredPattern(u"corvane(_[a-z0-9]+)+"_s));
        QSet<QString> seen;
        for (const Metric &metric : allMetrics()) {
            const QString name = QString::fromLatin1(metric.name);
            QVERIFY2(form.match(name).hasMatch(), metric.name);
            QVERIFY2(!seen.contains(name), metric.name);
            seen.insert(name);
            QCOMPARE(name.endsWith("_total"_L1), QByteArray(metric.type) == "counter");
            QVERIFY2(QByteArray(metric.type) == "counter" || QByteArray(metric.type) == "gauge", metric.name);
            QVERIFY2(!name.contains("_timestamp"_L1) || name.endsWith("_timestamp_seconds"_L1), metric.name);
            const QString help = QString::fromLatin1(metric.help);
            QVERIFY2(help.endsWith(u'.') && !help.contains(u'\n') && !help.contains(u'\\'), metric.name);
            QCOMPARE(metricNamed(QLatin1StringView(metric.name)), &metric);
        }
        QVERIFY(!metricNamed("corvane_nothing"_L1));
    }

    void writesEachMetricOnceWithWhatItIs()
    {
        QCOMPARE(exposition({{u"corvane_accounts"_s, {u"suspended"_s}, 2},
                             {u"corvane_agent_up"_s, {}, 1},
                             {u"corvane_accounts"_s, {u"active"_s}, 12}}),
                 "# HELP corvane_agent_up 1 if the agent answers or is at work on a request, 0 if not.\n"
                 "# TYPE corvane_agent_up gauge\n"
                 "corvane_agent_up 1\n"
                 "# HELP corvane_accounts Hosting accounts by state (active, suspended).\n"
                 "# TYPE corvane_accounts gauge\n"
                 "corvane_accounts{state=\"suspended\"} 2\n"
                 "corvane_accounts{state=\"active\"} 12\n");
    }

    void leavesOutWhatWouldMakeTheFileWrong()
    {
        const QByteArray one = exposition({{u"corvane_agent_up"_s, {}, 1}});
        QCOMPARE(exposition({{u"corvane_agent_up"_s, {}, 1},
                             {u"corvane_agent_up"_s, {}, 0},
                             {u"corvane_agent_up"_s, {u"more"_s}, 1},
                             {u"corvane_accounts"_s, {}, 1},
                             {u"corvane_nothing"_s, {}, 1},
                             {u"corvane_agent_up 1\nevil"_s, {}, 1},
                             {u"corvane_accounts"_s, {u"active"_s}, std::nan("")},
                             {u"corvane_accounts"_s, {u"active"_s}, std::numeric_limits<double>::infinity()}}),
                 one);
        // Two values that are written alike would be one series with two values.
        QCOMPARE(exposition({{u"corvane_accounts"_s, {u"a\t"_s}, 1}, {u"corvane_accounts"_s, {u"a\v"_s}, 2}})
                     .count("corvane_accounts{"),
                 1);
        QCOMPARE(exposition({}), QByteArray());
    }

    void writesNumbersExactly_data()
    {
        QTest::addColumn<double>("value");
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("none") << 0.0 << QByteArray("0");
        QTest::newRow("time") << 1795306261.0 << QByteArray("1795306261");
        QTest::newRow("terabytes") << 109951162777600.0 << QByteArray("109951162777600");
        QTest::newRow("beyond whole numbers") << 1e18 << QByteArray("1e+18");
        QTest::newRow("fraction") << 0.125 << QByteArray("0.125");
        QTest::newRow("tenth") << 0.1 << QByteArray("0.1");
        QTest::newRow("negative") << -1.0 << QByteArray("-1");
    }

    void writesNumbersExactly()
    {
        QFETCH(double, value);
        QFETCH(QByteArray, text);
        QCOMPARE(exposition({{u"corvane_agent_up"_s, {}, value}}).split('\n').at(2), "corvane_agent_up " + text);
    }

    void escapesLabels_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("text");
        QTest::newRow("plain") << u"php8.2-fpm"_s << u"php8.2-fpm"_s;
        QTest::newRow("empty") << QString() << QString();
        QTest::newRow("quotation mark") << u"a\"} 1"_s << u"a\\\"} 1"_s;
        QTest::newRow("backslash") << u"a\\"_s << u"a\\\\"_s;
        QTest::newRow("line feed") << u"a\nb 1"_s << u"a\\nb 1"_s;
        QTest::newRow("escape sequence") << u"a\x1b[2J"_s << u"a\uFFFD[2J"_s;
        QTest::newRow("carriage return, NUL") << u"a\r"_s + QChar(u'\0') << u"a\uFFFD\uFFFD"_s;
        QTest::newRow("C1") << u"a\u009b"_s << u"a\uFFFD"_s;
        QTest::newRow("letters") << u"b\u00fccher"_s << u"b\u00fccher"_s;
        QTest::newRow("pair") << u"\U0001F600"_s << u"\U0001F600"_s;
        QTest::newRow("half a pair") << QString(QChar(0xD83D)) + u'x' << u"\uFFFDx"_s;
        QTest::newRow("other half") << QString(QChar(0xDE00)) << u"\uFFFD"_s;
    }

    void escapesLabels()
    {
        QFETCH(QString, value);
        QTEST(labelValue(value), "text");
    }

    void samplesOutliveJson()
    {
        const QList<Sample> samples = {{u"corvane_accounts"_s, {u"active"_s}, 3}, {u"corvane_agent_up"_s, {}, 0.5}};
        QCOMPARE(samplesIn(arrayOf(samples)), samples);
        QCOMPARE(samplesIn({1, u"x"_s, QJsonObject{{u"metric"_s, 1}, {u"value"_s, 1}},
                            QJsonObject{{u"metric"_s, u"a"_s}, {u"value"_s, u"1"_s}}}),
                 QList<Sample>());
    }

    void believesTheAgentAlone_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<bool>("isBelieved");
        const QByteArray message = R"("agent: uid 0 ran ping -> ok")";
        const QByteArray unit = "corv-agent.service";
        QTest::newRow("agent") << entryLine(message) << true;
        QTest::newRow("a session's") << entryLine(message, "session-4.scope") << false;
        QTest::newRow("a pool's") << entryLine(message, "php8.2-fpm.service") << false;
        QTest::newRow("the agent's helper, as the account") << entryLine(message, unit, R"("1002")") << false;
        QTest::newRow("a tool of the agent's") << entryLine(message, unit, R"("0")", "/usr/bin/tar") << false;
        QTest::newRow("two units") << entryLine(message).replace(R"("corv-agent.service")",
                                                                 R"(["corv-agent.service","x.service"])")
                                   << false;
        QTest::newRow("a number for a user") << entryLine(message, unit, "0") << false;
        QTest::newRow("bytes for a message") << entryLine("[97,103]") << false;
        QTest::newRow("two messages") << entryLine("[" + message + "," + message + "]") << false;
    }

    void believesTheAgentAlone()
    {
        QFETCH(QByteArray, line);
        const std::optional<JournalEntry> entry = parseEntry(line);
        QVERIFY(entry);
        QCOMPARE(entry->cursor, kCursor);
        QTEST(!entry->message.isEmpty(), "isBelieved");
    }

    void takesNoEntryWithoutAPlaceToGoOnFrom()
    {
        QVERIFY(!parseEntry("-- No entries --\n"));
        QVERIFY(!parseEntry("{}"));
        QVERIFY(!parseEntry(R"({"__CURSOR":"--help","MESSAGE":"x"})"));
        QVERIFY(!isCursor(kCursor + u'\n'));
        QVERIFY(!isCursor(u"--rotate"_s));
        QVERIFY(!isCursor(QString()));
        QCOMPARE(timeOfCursor(kCursor), 0x64b5f5c1a2b3c);
        QCOMPARE(timeOfCursor(QString()), 0);
    }

    void countsTheAgentsOwnLines_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QByteArray>("counted");
        const auto row = [](const char *name, const QString &message, const QByteArray &counted) {
            QTest::newRow(name) << message << counted;
        };
        row("done", u"agent: uid 0 ran hosting.getKeys -> ok"_s, "hosting.getKeys ok");
        row("failed", u"agent: uid 33 ran backup.restore -> failed"_s, "backup.restore failed");
        row("no such command", u"agent: uid 0 ran hosting.destroy -> ok"_s, "");
        row("no such result", u"agent: uid 0 ran ping -> well"_s, "");
        row("more before", u"x agent: uid 0 ran ping -> ok"_s, "");
        row("more behind", u"agent: uid 0 ran ping -> ok."_s, "");
        row("line feed behind", u"agent: uid 0 ran ping -> ok\n"_s, "");
        row("unknown", u"agent: uid 33 sent unknown command 'x'"_s, "unknown");
        row("unknown, imitating", u"agent: uid 33 sent unknown command 'agent: uid 0 ran ping -> ok'"_s, "unknown");
        row("refused", u"agent: refused connection from uid 1002"_s, "refused");
        row("refused, unknown user", u"agent: refused connection from uid -1"_s, "refused");
        row("another line", u"agent: listening on /run/corvane/agent.sock"_s, "");
        row("empty", QString(), "");
    }

    void countsTheAgentsOwnLines()
    {
        QFETCH(QString, message);
        QFETCH(QByteArray, counted);
        AgentCounts expected;
        if (counted.endsWith(" ok"))
            expected.ok.insert(QString::fromLatin1(counted.chopped(3)), 2);
        else if (counted.endsWith(" failed"))
            expected.failed.insert(QString::fromLatin1(counted.chopped(7)), 2);
        expected.unknown = counted == "unknown" ? 2 : 0;
        expected.refused = counted == "refused" ? 2 : 0;
        AgentCounts counts;
        count(message, &counts);
        count(message, &counts);
        QCOMPARE(counts, expected);
    }

    void knowsEachCommand()
    {
        for (const Described &command : described()) {
            AgentCounts counts;
            count(u"agent: uid 0 ran %1 -> ok"_s.arg(QLatin1StringView(command.name)), &counts);
            QCOMPARE(counts.ok.value(QString::fromLatin1(command.name)), 1);
        }
        QCOMPARE(described().size(), 35U);
    }

    void placesOutliveJson()
    {
        const JournalPlace place = {1795306261, kCursor, {{{u"ping"_s, 3}}, {{u"files"_s, 1}}, 4, 5}};
        const std::optional<JournalPlace> read = placeIn(objectOf(place));
        QVERIFY(read);
        QCOMPARE(read->since, place.since);
        QCOMPARE(read->cursor, place.cursor);
        QCOMPARE(read->counts, place.counts);
        QVERIFY(placeIn(objectOf(JournalPlace{1, {}, {}})));
    }

    void takesNoDamagedPlace()
    {
        const QJsonObject whole = objectOf(JournalPlace{1795306261, kCursor, {}});
        const auto with = [&whole](const QString &member, const QJsonValue &value) {
            QJsonObject object = whole;
            object.insert(member, value);
            return object;
        };
        QVERIFY(placeIn(whole));
        QVERIFY(!placeIn({}));
        QVERIFY(!placeIn(with(u"since"_s, 0)));
        QVERIFY(!placeIn(with(u"since"_s, u"1"_s)));
        QVERIFY(!placeIn(with(u"cursor"_s, u"--output=x"_s)));
        QVERIFY(!placeIn(with(u"cursor"_s, 7)));
        QVERIFY(!placeIn(with(u"counts"_s, 7)));
        QJsonObject counts = objectOf(AgentCounts{});
        counts.insert(u"ok"_s, QJsonObject{{u"ping"_s, -1}});
        QVERIFY(!placeIn(with(u"counts"_s, counts)));
        counts.insert(u"ok"_s, QJsonObject{{u"destroy"_s, 1}});
        QVERIFY(!placeIn(with(u"counts"_s, counts)));
        counts.insert(u"ok"_s, QJsonObject{{u"ping"_s, 2.5}});
        QVERIFY(!placeIn(with(u"counts"_s, counts)));
    }

    void asksTheJournalForTheAgentAlone()
    {
        const QStringList behind = {u"_SYSTEMD_UNIT=corv-agent.service"_s, u"_UID=0"_s,
                                    u"_EXE=/usr/libexec/corvane/corv-agent"_s};
        const QStringList first = journalArguments({1795306261, {}, {}});
        QCOMPARE(first.mid(4), QStringList{u"--since=@1795306261"_s} + behind);
        QCOMPARE(journalArguments({1795306261, kCursor, {}}).mid(4), QStringList{u"--cursor="_s + kCursor} + behind);
    }

    void worksInAProcessOfItsOwn()
    {
        const pid_t self = ::getpid();
        const std::optional<QByteArray> output = workWithProgramsApart(
            60'000, [self] { return QByteArray::number(::getpid() == self ? 1 : 0) + QByteArray(300'000, 'x'); });
        QVERIFY(output);
        QCOMPARE(*output, "0" + QByteArray(300'000, 'x'));
    }

    void whatHangsIsGivenUp()
    {
        QTemporaryDir folder;
        const QString told = folder.filePath(u"pid"_s);
        QElapsedTimer clock;
        clock.start();
        const std::optional<QByteArray> output = workWithProgramsApart(1'000, [&] {
            // A program in a session of its own, as all that are started have one.
            QProcess program;
            program.start(u"setsid"_s, {u"sh"_s, u"-c"_s, u"echo $$ >'%1'; sleep 3600"_s.arg(told)});
            (void)program.waitForFinished(-1);
            return QByteArray("done");
        });
        QVERIFY(!output);
        QVERIFY(clock.elapsed() < 60'000);
        const pid_t left = contentOf(told).trimmed().toInt();
        QVERIFY(left > 0);
        QVERIFY(::kill(left, 0) != 0);
    }

    void whoeverWorksApartHasNothingOpenThatIsThisOnes()
    {
        const corv::Fd lock(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        const std::optional<QByteArray> output = workWithProgramsApart(60'000, [&lock] {
            const bool isOpen = ::fcntl(lock.get(), F_GETFD) >= 0;
            return QFile::symLinkTarget(u"/proc/self/fd/1"_s).toUtf8() + ' ' +
                   QFile::symLinkTarget(u"/proc/self/fd/2"_s).toUtf8() + (isOpen ? " open" : " closed");
        });
        QCOMPARE(output, std::optional(QByteArray("/dev/null /dev/null closed")));
    }

    void whatDiesIsNothing()
    {
        QVERIFY(!workWithProgramsApart(60'000, []() -> QByteArray {
            (void)::kill(::getpid(), SIGKILL);
            return {};
        }));
        QVERIFY(!workWithProgramsApart(60'000, [] { return QByteArray(17'000'000, 'x'); }));
        QCOMPARE(workWithProgramsApart(60'000, [] { return QByteArray(); }), std::optional(QByteArray()));
    }

    void writesTheFileInOnePieceForAll()
    {
        QTemporaryDir folder;
        const QString path = QDir(folder.path()).canonicalPath() + u"/corvane.prom"_s;
        QCOMPARE(writeTextfile(path, "one\n"), QString());
        QCOMPARE(writeTextfile(path, "two\n"), QString());
        QCOMPARE(contentOf(path), "two\n");
        struct stat status = {};
        QCOMPARE(::stat(QFile::encodeName(path).constData(), &status), 0);
        QCOMPARE(status.st_mode & ALLPERMS, mode_t(0644));
        QCOMPARE(QDir(folder.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList{u"corvane.prom"_s});
    }

    void replacesALinkAndNotWhatItLeadsTo()
    {
        QTemporaryDir folder;
        const QString base = QDir(folder.path()).canonicalPath();
        QFile victim(base + u"/victim"_s);
        QVERIFY(victim.open(QIODevice::WriteOnly) && victim.write("mine") == 4);
        victim.close();
        // Also one that waits under the name that is written first.
        QVERIFY(QFile::link(victim.fileName(), base + u"/corvane.prom"_s));
        QVERIFY(QFile::link(victim.fileName(), base + u"/.corvane.prom.new"_s));
        QCOMPARE(writeTextfile(base + u"/corvane.prom"_s, "new\n"), QString());
        QCOMPARE(contentOf(victim.fileName()), "mine");
        QVERIFY(!QFileInfo(base + u"/corvane.prom"_s).isSymLink());
        QCOMPARE(contentOf(base + u"/corvane.prom"_s), "new\n");
    }

    void goesThroughNoLink()
    {
        QTemporaryDir folder;
        const QString base = QDir(folder.path()).canonicalPath();
        QVERIFY(QDir(base).mkdir(u"real"_s));
        QVERIFY(QFile::link(base + u"/real"_s, base + u"/way"_s));
        QCOMPARE(writeTextfile(base + u"/way/corvane.prom"_s, "x\n"),
                 u"there is a link or a file on the way to %1/way; its true path has to be named"_s.arg(base));
        QVERIFY(QDir(base + u"/real"_s).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
    }

    void saysWhyAFileCannotBeWritten()
    {
        QTemporaryDir folder;
        const QString base = QDir(folder.path()).canonicalPath();
        QCOMPARE(writeTextfile(u"corvane.prom"_s, "x"), u"corvane.prom is no absolute path of a file in a folder"_s);
        QCOMPARE(writeTextfile(base + u'/', "x"), base + u"/ is no absolute path of a file in a folder"_s);
        QCOMPARE(writeTextfile(u"/corvane.prom"_s, "x"), u"/corvane.prom is no absolute path of a file in a folder"_s);
        QCOMPARE(writeTextfile(base + u"/../x"_s, "x"), base + u"/../x is no absolute path of a file in a folder"_s);
        QCOMPARE(writeTextfile(base + u"/no/corvane.prom"_s, "x"), base + u"/no: No such file or directory"_s);
        QVERIFY(QDir(base).mkdir(u"corvane.prom"_s));
        QCOMPARE(writeTextfile(base + u"/corvane.prom"_s, "x"),
                 u"cannot write %1/corvane.prom: Is a directory"_s.arg(base));
        QCOMPARE(QDir(base).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList{u"corvane.prom"_s});
    }
};

QTEST_GUILESS_MAIN(TestMetrics)
#include "test_metrics.moc"
