#include "common/StoppedPhp.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv::php;

namespace {

constexpr int kMaster = 100;
constexpr int kWorker = 101;
constexpr int kTracer = 102;

// What the kernel shows of one process, as far as it is looked at.
struct Shown
{
    int pid;
    QByteArray name;
    char state;
    int parent;
    int user;
    int tracer = 0;
};

QByteArray statLine(const Shown &process)
{
    return QByteArray::number(process.pid) + " (" + process.name + ") " + process.state + ' ' +
           QByteArray::number(process.parent) +
           " 1 1 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 1 0 4711 123 456 18446744073709551615 1\n";
}

void write(const QString &path, const QByteArray &text)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(text), text.size());
}

void show(const QString &proc, const Shown &process)
{
    const QString folder = u"%1/%2"_s.arg(proc).arg(process.pid);
    QVERIFY(QDir().mkpath(folder));
    write(folder + u"/stat"_s, statLine(process));
    write(folder + u"/status"_s, "Name:\t" + process.name + "\nTracerPid:\t" + QByteArray::number(process.tracer) +
                                     "\nUid:\t" + QByteArray::number(process.user) + "\t0\t0\t0\n");
}

} // namespace

class TestStoppedPhp : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsAStateBehindANameOfAnything_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::newRow("usual") << QByteArray("php-fpm8.2");
        QTest::newRow("one that looks like a state") << QByteArray("a) R 7 (b");
        QTest::newRow("blanks and brackets") << QByteArray(") ) (");
        QTest::newRow("none") << QByteArray();
    }
    void readsAStateBehindANameOfAnything()
    {
        QFETCH(QByteArray, name);
        const QByteArray line = statLine({kWorker, name, 'T', kMaster, 0});
        const std::optional<ProcessState> state = parseProcessState(line.toStdString());
        QVERIFY(state);
        QCOMPARE(QByteArray::fromStdString(state->name), name);
        QCOMPARE(state->state, 'T');
        QCOMPARE(state->parent, kMaster);
        QCOMPARE(state->began, 4711U);
    }

    void takesNothingElseForAState_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("cut off") << QByteArray("101 (php-fpm8.2) T 100 1 1 0");
        QTest::newRow("no name") << QByteArray("101 T 100 1 1 0 -1 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17");
        QTest::newRow("a long state") << statLine({kWorker, "x", 'T', kMaster, 0}).replace(") T", ") TT");
        QTest::newRow("a parent that is none") << statLine({kWorker, "x", 'T', kMaster, 0}).replace("100", "1x0");
        QTest::newRow("a beginning that is none") << statLine({kWorker, "x", 'T', kMaster, 0}).replace("4711", "-4711");
    }
    void takesNothingElseForAState()
    {
        QFETCH(QByteArray, line);
        QVERIFY(!parseProcessState(line.toStdString()));
    }

    void findsThoseThatArePoolsAndStopped_data()
    {
        QTest::addColumn<QList<Shown>>("processes");
        QTest::addColumn<bool>("isFound");
        const Shown master = {kMaster, "php-fpm8.2", 'S', 1, 0};
        QTest::newRow("stopped") << QList<Shown>{master, {kWorker, "php-fpm8.2", 'T', kMaster, 1000}} << true;
        QTest::newRow("under another name") << QList<Shown>{master, {kWorker, "x) R 1", 'T', kMaster, 1000}} << true;
        QTest::newRow("runs") << QList<Shown>{master, {kWorker, "php-fpm8.2", 'R', kMaster, 1000}} << false;
        QTest::newRow("sleeps") << QList<Shown>{master, {kWorker, "php-fpm8.2", 'S', kMaster, 1000}} << false;
        QTest::newRow("of a shell") << QList<Shown>{{kMaster, "bash", 'S', 1, 0},
                                                    {kWorker, "php-fpm8.2", 'T', kMaster, 1000}}
                                    << false;
        QTest::newRow("of one who calls himself so")
            << QList<Shown>{{kMaster, "php-fpm8.2", 'S', 1, 1000}, {kWorker, "vi", 'T', kMaster, 1000}} << false;
        QTest::newRow("without a parent") << QList<Shown>{{kWorker, "php-fpm8.2", 'T', kMaster, 1000}} << false;
        QTest::newRow("traced by root") << QList<Shown>{master,
                                                        {kTracer, "strace", 'S', 1, 0},
                                                        {kWorker, "php-fpm8.2", 't', kMaster, 1000, kTracer}}
                                        << false;
        QTest::newRow("traced by its user") << QList<Shown>{master,
                                                            {kTracer, "gdb", 'S', 1, 1000},
                                                            {kWorker, "php-fpm8.2", 't', kMaster, 1000, kTracer}}
                                            << true;
    }
    void findsThoseThatArePoolsAndStopped()
    {
        QFETCH(QList<Shown>, processes);
        QFETCH(bool, isFound);
        const QTemporaryDir proc;
        for (const Shown &process : processes)
            show(proc.path(), process);
        write(proc.filePath(u"uptime"_s), "1 1\n");
        QVERIFY(QDir(proc.path()).mkdir(u"4x"_s));

        const std::vector<StoppedProcess> found = stoppedProcesses(proc.path().toStdString());

        const std::vector<StoppedProcess> wanted = {{kWorker, 4711, 1000}};
        QVERIFY(found == (isFound ? wanted : std::vector<StoppedProcess>()));
    }

    void findsNoneWhereNothingIsShown()
    {
        QVERIFY(stoppedProcesses("/nonexistent").empty());
    }

    void endsTheOneThatIsMeantAndStillStopped()
    {
        const pid_t child = ::fork();
        if (child == 0) {
            (void)::kill(::getpid(), SIGSTOP);
            ::pause();
            ::_exit(0);
        }
        int status = 0;
        QCOMPARE(::waitpid(child, &status, WUNTRACED), child);
        QVERIFY(WIFSTOPPED(status));
        QFile file(u"/proc/%1/stat"_s.arg(child));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const std::optional<ProcessState> state = parseProcessState(file.readAll().toStdString());
        QVERIFY(state);

        // A later process that has got its id.
        QVERIFY(!endStopped({child, state->began + 1, 0}));
        ::kill(child, SIGCONT);
        QCOMPARE(::waitpid(child, &status, WCONTINUED), child);
        QVERIFY(!endStopped({child, state->began, 0}));
        ::kill(child, SIGSTOP);
        QCOMPARE(::waitpid(child, &status, WUNTRACED), child);
        QVERIFY(endStopped({child, state->began, 0}));
        QCOMPARE(::waitpid(child, &status, 0), child);
        QVERIFY(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        QVERIFY(!endStopped({child, state->began, 0}));
    }
};

QTEST_GUILESS_MAIN(TestStoppedPhp)
#include "test_stopped_php.moc"
