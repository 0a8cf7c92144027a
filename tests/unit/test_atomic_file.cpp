#include "common/AtomicFile.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

using namespace Qt::Literals::StringLiterals;
using corv::replaceFile;

namespace {

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(unreadable)");
}

struct stat attributesOf(const QString &path)
{
    struct stat status = {};
    (void)::lstat(QFile::encodeName(path).constData(), &status);
    return status;
}

void put(const QString &path, const QByteArray &data)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(data), data.size());
}

// No file of the process can grow past a size while this lives, which is what a full disk looks like to it.
class SizeLimit
{
public:
    explicit SizeLimit(rlim_t bytes)
    {
        (void)std::signal(SIGXFSZ, SIG_IGN);
        (void)::getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit = {bytes, m_before.rlim_max};
        (void)::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~SizeLimit()
    {
        (void)::setrlimit(RLIMIT_FSIZE, &m_before);
    }
    Q_DISABLE_COPY_MOVE(SizeLimit)

private:
    rlimit m_before = {};
};

} // namespace

class TestAtomicFile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_folder = std::make_unique<QTemporaryDir>();
        QVERIFY(m_folder->isValid());
        m_path = m_folder->filePath(u"fstab"_s);
    }

    void makesANewFileWithExactlyTheGivenMode()
    {
        const mode_t mask = ::umask(0077);
        const bool done = replaceFile(m_path, "new\n", 0644);
        ::umask(mask);
        QVERIFY(done);
        QCOMPARE(contentOf(m_path), QByteArray("new\n"));
        QCOMPARE(attributesOf(m_path).st_mode & ALLPERMS, 0644U);
        QCOMPARE(entries(), QStringList{u"fstab"_s});
    }

    void keepsOwnerGroupAndModeOfTheReplacedFile()
    {
        if (::geteuid() != 0)
            QSKIP("only root can give files away");
        put(m_path, "old\n");
        QCOMPARE(::chown(QFile::encodeName(m_path).constData(), 12, 34), 0);
        QCOMPARE(::chmod(QFile::encodeName(m_path).constData(), 02640), 0);
        QVERIFY(replaceFile(m_path, "new\n", 0644));
        QCOMPARE(contentOf(m_path), QByteArray("new\n"));
        QCOMPARE(attributesOf(m_path).st_uid, 12U);
        QCOMPARE(attributesOf(m_path).st_gid, 34U);
        QCOMPARE(attributesOf(m_path).st_mode & ALLPERMS, 02640U);
        QCOMPARE(entries(), QStringList{u"fstab"_s});
    }

    void whoHasTheOldFileOpenKeepsTheOldContent()
    {
        put(m_path, "old\n");
        QFile reader(m_path);
        QVERIFY(reader.open(QIODevice::ReadOnly));
        QVERIFY(replaceFile(m_path, "new and longer\n", 0644));
        QCOMPARE(reader.readAll(), QByteArray("old\n"));
    }

    void canEmptyAFile()
    {
        put(m_path, "old\n");
        QVERIFY(replaceFile(m_path, {}, 0644));
        QCOMPARE(contentOf(m_path), QByteArray());
    }

    void followsALinkAndLeavesItInPlace()
    {
        QVERIFY(QDir(m_folder->path()).mkdir(u"kept"_s));
        const QString real = m_folder->filePath(u"kept/fstab"_s);
        put(real, "old\n");
        QVERIFY(QFile::link(u"kept/fstab"_s, m_path));
        QVERIFY(replaceFile(m_path, "new\n", 0644));
        QVERIFY(S_ISLNK(attributesOf(m_path).st_mode));
        QCOMPARE(contentOf(real), QByteArray("new\n"));
        QCOMPARE(entries(), (QStringList{u"fstab"_s, u"kept"_s}));
        QCOMPARE(QDir(m_folder->filePath(u"kept"_s)).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList{u"fstab"_s});
    }

    void replacesALinkThatLeadsNowhere()
    {
        QVERIFY(QFile::link(u"missing"_s, m_path));
        QVERIFY(replaceFile(m_path, "new\n", 0640));
        QVERIFY(S_ISREG(attributesOf(m_path).st_mode));
        QCOMPARE(attributesOf(m_path).st_mode & ALLPERMS, 0640U);
        QCOMPARE(entries(), QStringList{u"fstab"_s});
    }

    void refusesWhatIsNoFile_data()
    {
        QTest::addColumn<bool>("folder");
        QTest::newRow("folder") << true;
        QTest::newRow("FIFO") << false;
    }

    void refusesWhatIsNoFile()
    {
        QFETCH(bool, folder);
        const QByteArray name = QFile::encodeName(m_path);
        QCOMPARE(folder ? ::mkdir(name.constData(), 0755) : ::mkfifo(name.constData(), 0644), 0);
        const mode_t before = attributesOf(m_path).st_mode;
        QVERIFY(!replaceFile(m_path, "new\n", 0644));
        QCOMPARE(attributesOf(m_path).st_mode, before);
        QCOMPARE(entries(), QStringList{u"fstab"_s});
    }

    void failsWithoutTheFolder()
    {
        QVERIFY(!replaceFile(m_folder->filePath(u"missing/fstab"_s), "new\n", 0644));
        QCOMPARE(entries(), QStringList());
    }

    void aFileThatIsCutShortLeavesTheOldOneAndNothingElse()
    {
        put(m_path, "old\n");
        bool done = true;
        {
            const SizeLimit limit(4096);
            done = replaceFile(m_path, QByteArray(8192, 'x'), 0644);
        }
        QVERIFY(!done);
        QCOMPARE(contentOf(m_path), QByteArray("old\n"));
        QCOMPARE(entries(), QStringList{u"fstab"_s});
    }

private:
    [[nodiscard]] QStringList entries() const
    {
        return QDir(m_folder->path())
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    }

    std::unique_ptr<QTemporaryDir> m_folder;
    QString m_path;
};

QTEST_APPLESS_MAIN(TestAtomicFile)
#include "test_atomic_file.moc"
