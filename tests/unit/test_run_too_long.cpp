#include "common/Run.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

#include <sys/wait.h>

using namespace Qt::Literals::StringLiterals;
using corv::hosting::run;

namespace {

QString sh(const QString &script, const QByteArray &input = {}, QByteArray *out = nullptr)
{
    return run(u"sh"_s, {u"-c"_s, script}, input, out);
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

// What happens when a program never ends. Built with the short time-out, 2 s.
class TestRunTooLong : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_folder.isValid());
    }

    void endsAProgramThatTakesTooLongWithAllItStarted()
    {
        const QString pids = m_folder.filePath(u"pids"_s);
        QByteArray out = "untouched";
        const QString script = u"echo noise; sleep 60 & echo $! > %1; sh -c 'echo $$ >> %1; sleep 60'"_s.arg(pids);
        QCOMPARE(sh(script, {}, &out), u"sh: took too long"_s);
        QCOMPARE(out, QByteArray("untouched"));
        QFile file(pids);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QList<QByteArray> lines = file.readAll().trimmed().split('\n');
        QCOMPARE(lines.size(), 2);
        for (const QByteArray &line : lines)
            QVERIFY(QTest::qWaitFor([&] { return ::kill(line.toInt(), 0) != 0 || isZombie(line); }));
    }

    void leavesNeitherChildrenNorDescriptors()
    {
        const qsizetype before = openDescriptors();
        QCOMPARE(sh(u"sleep 60"_s), u"sh: took too long"_s);
        QCOMPARE(openDescriptors(), before);
        QVERIFY(!hasChildren());
    }

private:
    static bool isZombie(const QByteArray &pid)
    {
        QFile status(u"/proc/%1/status"_s.arg(QString::fromLatin1(pid)));
        return status.open(QIODevice::ReadOnly) && status.readAll().contains("State:\tZ");
    }

    QTemporaryDir m_folder;
};

QTEST_GUILESS_MAIN(TestRunTooLong)
#include "test_run_too_long.moc"
