#include "common/Archiver.h"
#include "common/Run.h"
#include "common/TimedRun.h"

#include <QElapsedTimer>
#include <QFile>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

#include <sys/resource.h>
#include <sys/wait.h>

using namespace Qt::Literals::StringLiterals;
using corv::hosting::run;
using corv::hosting::runWith;
using corv::hosting::Streams;

namespace {

constexpr qsizetype kMiB = 1'048'576;

QString sh(const QString &script, const QByteArray &input = {}, QByteArray *out = nullptr)
{
    return run(u"sh"_s, {u"-c"_s, script}, input, out);
}

QString shWith(const QString &script, const Streams &streams)
{
    return runWith(u"sh"_s, {u"-c"_s, script}, streams);
}

Streams receiving(QByteArray *out, qsizetype maxSize)
{
    Streams streams;
    streams.output = out;
    streams.maxOutput = maxSize;
    return streams;
}

long peakKiB()
{
    rusage usage = {};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

qsizetype openDescriptors()
{
    return QDir(u"/proc/self/fd"_s).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size();
}

bool hasChildren()
{
    return ::waitpid(-1, nullptr, WNOHANG) >= 0;
}

} // namespace

class TestRun : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_folder.isValid());
    }

    void receivesAsMuchAsIsAllowed()
    {
        QByteArray out;
        QCOMPARE(shWith(u"head -c 100000 /dev/zero"_s, receiving(&out, 100'000)), QString());
        QCOMPARE(out, QByteArray(100'000, '\0'));
        Streams streams = receiving(&out, 2);
        streams.input = "in";
        QCOMPARE(shWith(u"cat; exit 3"_s, streams), u"sh failed: exit code 3"_s);
        QCOMPARE(out, QByteArray("in"));
    }

    void takesAProgramThatPrintsTooMuchForASilentOne()
    {
        QByteArray out;
        QCOMPARE(shWith(u"head -c 100001 /dev/zero"_s, receiving(&out, 100'000)), QString());
        QCOMPARE(out, QByteArray());
    }

    void killsAProgramThatNeverEndsPrinting()
    {
        QByteArray out;
        const long before = peakKiB();
        QCOMPARE(shWith(u"yes; true"_s, receiving(&out, kMiB)), QString());
        QCOMPARE(out, QByteArray());
        QVERIFY(peakKiB() - before < 16 * 1024L);
        QVERIFY(!hasChildren());
    }

    void readsFromAnOpenFile()
    {
        QFile file(m_folder.filePath(u"input"_s));
        QVERIFY(file.open(QIODevice::ReadWrite) && file.write("text") == 4 && file.seek(0));
        QByteArray out;
        Streams streams = receiving(&out, kMiB);
        streams.inputFile = file.handle();
        QCOMPARE(shWith(u"cat; exit 1"_s, streams), u"sh failed: exit code 1"_s);
        QCOMPARE(out, QByteArray("text"));
    }

    void writesToAnOpenFile()
    {
        QFile file(m_folder.filePath(u"open"_s));
        QVERIFY(file.open(QIODevice::ReadWrite));
        Streams streams;
        streams.outputFile = file.handle();
        QCOMPARE(shWith(u"head -c 5000 /dev/zero; echo why >&2; exit 1"_s, streams), u"sh failed: why"_s);
        QVERIFY(file.seek(0));
        QCOMPARE(file.readAll(), QByteArray(5'000, '\0'));
    }

    void letsNobodyFillAFileBeyondItsLimit()
    {
        QFile file(m_folder.filePath(u"limited"_s));
        QVERIFY(file.open(QIODevice::ReadWrite));
        Streams streams;
        streams.outputFile = file.handle();
        streams.maxFileSize = 5'000;
        QCOMPARE(shWith(u"head -c 5000 /dev/zero"_s, streams), QString());
        QCOMPARE(file.size(), 5'000);
        QVERIFY(!shWith(u"head -c 1 /dev/zero"_s, streams).isEmpty());
        QCOMPARE(file.size(), 5'000);
    }

    void saysNothingOfSuccess()
    {
        QCOMPARE(run(u"true"_s, {}), QString());
    }

    void givesTheExitCodeOfASilentFailure()
    {
        QCOMPARE(run(u"false"_s, {}), u"false failed: exit code 1"_s);
        QCOMPARE(sh(u"exit 9"_s), u"sh failed: exit code 9"_s);
        QCOMPARE(sh(u"echo ' ' >&2; exit 3"_s), u"sh failed: exit code 3"_s);
    }

    void givesTheErrorTextOfAFailure()
    {
        QCOMPARE(sh(u"echo '  no such thing  ' >&2; exit 1"_s), u"sh failed: no such thing"_s);
    }

    void keepsPlaceholdersOfTheErrorText()
    {
        QCOMPARE(sh(u"echo 'disk %1 is 90%2 full %%' >&2; exit 1"_s), u"sh failed: disk %1 is 90%2 full %%"_s);
    }

    void keepsTheLast400CharactersOfAnErrorText()
    {
        QCOMPARE(sh(u"printf 'x%.0s' $(seq 600) >&2; printf 'y%.0s' $(seq 400) >&2; exit 1"_s),
                 u"sh failed: "_s + QString(400, u'y'));
        QCOMPARE(sh(u"printf 'x%.0s' $(seq 400) >&2; exit 1"_s), u"sh failed: "_s + QString(400, u'x'));
        QCOMPARE(sh(u"printf 'ä%.0s' $(seq 401) >&2; exit 1"_s), u"sh failed: "_s + QString(400, u'ä'));
    }

    void countsADeathBySignalAsFailure()
    {
        QVERIFY(sh(u"kill -KILL $$"_s).startsWith(u"sh failed: exit code "_s));
        QCOMPARE(sh(u"echo gone >&2; kill -SEGV $$"_s), u"sh failed: gone"_s);
    }

    void saysThatAProgramCannotStart()
    {
        QByteArray out = "untouched";
        QCOMPARE(run(u"no-such-program"_s, {}, {}, &out), u"no-such-program: cannot start"_s);
        QCOMPARE(run(u"/etc/passwd"_s, {}, {}, &out), u"/etc/passwd: cannot start"_s);
        QCOMPARE(out, QByteArray("untouched"));
    }

    void passesArgumentsAsTheyAre()
    {
        QByteArray out;
        QCOMPARE(run(u"printf"_s, {u"[%s]"_s, u""_s, u"a b"_s, u"$(id)"_s, u"'\"\\"_s, u"-x"_s}, {}, &out), QString());
        QCOMPARE(out, QByteArray("[][a b][$(id)]['\"\\][-x]"));
    }

    void deliversInputAndClosesIt()
    {
        QByteArray out;
        const QByteArray input = QByteArray(5 * kMiB, 'i') + '\0' + "end";
        QCOMPARE(run(u"cat"_s, {}, input, &out), QString());
        QVERIFY(out == input);
        QCOMPARE(run(u"cat"_s, {}, {}, &out), QString());
        QCOMPARE(out, QByteArray());
    }

    void isNotHeldUpByAProgramThatReadsNothing()
    {
        QCOMPARE(run(u"true"_s, {}, QByteArray(5 * kMiB, 'i')), QString());
        QCOMPARE(sh(u"exec <&-; exit 4"_s, QByteArray(5 * kMiB, 'i')), u"sh failed: exit code 4"_s);
    }

    void isNotHeldUpByFullPipes()
    {
        QByteArray out;
        const QString script = u"head -c 3000000 /dev/zero >&2; head -c 3000000 /dev/zero; cat >/dev/null"_s;
        QCOMPARE(sh(script, QByteArray(3 * kMiB, 'i'), &out), QString());
        QCOMPARE(out.size(), 3'000'000);
        QCOMPARE(sh(script), QString());
    }

    void deliversTheOutputOfAFailure()
    {
        QByteArray out;
        QCOMPARE(sh(u"echo partial; exit 2"_s, {}, &out), u"sh failed: exit code 2"_s);
        QCOMPARE(out, QByteArray("partial\n"));
    }

    void sendsOutputToAFile()
    {
        const QString path = m_folder.filePath(u"out"_s);
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("much longer former content") > 0);
        file.close();
        QByteArray out = "former";
        QCOMPARE(run(u"echo"_s, {u"new"_s}, {}, &out, path), QString());
        QCOMPARE(out, QByteArray());
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("new\n"));
    }

    void cannotStartWithoutItsOutputFile()
    {
        QCOMPARE(run(u"true"_s, {}, {}, nullptr, m_folder.filePath(u"none/out"_s)), u"true: cannot start"_s);
    }

    void doesNotWaitForABackgroundChildThatHoldsThePipes()
    {
        QByteArray out;
        QCOMPARE(sh(u"echo early; sleep 60 & exit 0"_s, {}, &out), QString());
        QCOMPARE(out, QByteArray("early\n"));
    }

    void leavesNeitherChildrenNorDescriptors()
    {
        const qsizetype before = openDescriptors();
        QCOMPARE(run(u"no-such-program"_s, {}), u"no-such-program: cannot start"_s);
        QCOMPARE(run(u"true"_s, {}), QString());
        QCOMPARE(openDescriptors(), before);
        QVERIFY(!hasChildren());
    }

    void givesChildrenASessionAndNothingOfItsOwn()
    {
        sigset_t blocked;
        sigfillset(&blocked);
        sigprocmask(SIG_BLOCK, &blocked, nullptr);
        const QFile leak(u"/etc/passwd"_s);
        const int descriptor = ::dup(STDERR_FILENO); // without close-on-exec
        QByteArray out;
        // Built-ins alone look at the signals: a shell blocks them for itself for a moment around each program that it
        // starts.
        const QString error = sh(uR"(ls /proc/$$/fd
            while read -r line; do case $line in SigBlk:*) echo "$line" ;; esac done < /proc/$$/status
            cut -d' ' -f6 /proc/$$/stat
            echo $$)"_s,
                                 {}, &out);
        ::close(descriptor);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);

        QCOMPARE(error, QString());
        const QList<QByteArray> lines = out.trimmed().split('\n');
        QCOMPARE(lines.size(), 6);
        QCOMPARE(lines.mid(0, 3), QList<QByteArray>({"0", "1", "2"}));
        QCOMPARE(lines.at(3).simplified(), QByteArray("SigBlk: 0000000000000000"));
        QCOMPARE(lines.at(4), lines.at(5));
    }

    void holdsALargeOutputOnce()
    {
        const long before = peakKiB();
        QByteArray out;
        QCOMPARE(run(u"head"_s, {u"-c"_s, u"67108864"_s, u"/dev/zero"_s}, {}, &out), QString());
        QCOMPARE(out.size(), 64 * kMiB);
        QVERIFY2(peakKiB() - before < 128 * 1024L, qPrintable(QString::number(peakKiB() - before)));
    }

    void holdsLittleOfAFloodOfErrors()
    {
        const long before = peakKiB();
        const QString error = sh(u"head -c 200000000 /dev/zero | tr '\\0' e >&2; exit 1"_s);
        QCOMPARE(error, u"sh failed: "_s + QString(400, u'e'));
        QVERIFY2(peakKiB() - before < 64 * 1024L, qPrintable(QString::number(peakKiB() - before)));
    }

    void keepsTheFastCompressorForArchives()
    {
        const QByteArray path = qgetenv("PATH");
        const auto back = qScopeGuard([&path] { qputenv("PATH", path); });
        qputenv("PATH", "/usr/libexec/corvane/tools:" + path + ":/usr/libexec/corvane/tools");
        QByteArray seen;
        QCOMPARE(sh(u"printf %s \"$PATH\""_s, {}, &seen), QString());
        QCOMPARE(seen, path);

        // Neither by way of variables and limits of a program's own.
        corv::hosting::Surroundings surroundings;
        surroundings.environment.insert(u"OWN"_s, u"x"_s);
        QCOMPARE(runWith(u"sh"_s, {u"-c"_s, u"printf %s \"$OWN $PATH\""_s}, receiving(&seen, kMiB), surroundings),
                 QString());
        QCOMPARE(seen, "x " + path);
        QCOMPARE(
            corv::runWithin(10'000, u"sh"_s, {u"-c"_s, u"printf %s \"$OWN $PATH\""_s}, {{u"OWN"_s, u"y"_s}}).output,
            "y " + path);

        QCOMPARE(runWith(u"sh"_s, {u"-c"_s, u"printf %s \"$PATH\""_s}, receiving(&seen, kMiB),
                         corv::hosting::archiverSurroundings()),
                 QString());
        QCOMPARE(seen, "/usr/libexec/corvane/pipes:/usr/libexec/corvane/tools:" + path + ":/usr/libexec/corvane/tools");
    }

    void givesArchivesNoCompressorThatItWasNotGiven()
    {
        QByteArray seen;
        QCOMPARE(runWith(u"sh"_s, {u"-c"_s, u"printf %s \"$PATH\""_s}, receiving(&seen, kMiB),
                         corv::hosting::archiverSurroundings()),
                 QString());
        QCOMPARE(seen, qgetenv("PATH"));
    }

private:
    QTemporaryDir m_folder;
};

QTEST_GUILESS_MAIN(TestRun)
#include "test_run.moc"
