#include "common/Tree.h"

#include "common/Fd.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv;

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

bool touch(int folder, const char *name)
{
    return static_cast<bool>(Fd(::openat(folder, name, O_WRONLY | O_CREAT | O_CLOEXEC, 0600)));
}

qsizetype openDescriptors()
{
    return QDir(u"/proc/self/fd"_s).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

} // namespace

class TestTree : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_scratch = std::make_unique<QTemporaryDir>();
        QVERIFY(m_scratch->isValid());
        m_parent = Fd(::open(m_scratch->path().toLocal8Bit().constData(), kFolderFlags));
        QVERIFY(m_parent);
    }

    void removesAFile()
    {
        QVERIFY(touch(m_parent.get(), "file"));
        QVERIFY(removeTree(m_parent.get(), "file"));
        QVERIFY(!present("file"));
    }

    void removesAFolderWithAllBelowIt()
    {
        QVERIFY(QDir(m_scratch->path()).mkpath(u"top/.hidden/below"_s));
        QVERIFY(QDir(m_scratch->path()).mkpath(u"top/other"_s));
        QVERIFY(touch(m_parent.get(), "top/file"));
        QVERIFY(touch(m_parent.get(), "top/.hidden/below/file"));
        QVERIFY(touch(m_parent.get(), "beside"));
        QVERIFY(removeTree(m_parent.get(), "top"));
        QVERIFY(!present("top"));
        QVERIFY(present("beside"));
    }

    void removesNamesThatAreNoText()
    {
        QCOMPARE(::mkdirat(m_parent.get(), "\xff\xfe", 0700), 0);
        QVERIFY(touch(m_parent.get(), "\xff\xfe/\xc3"));
        QCOMPARE(::mkdirat(m_parent.get(), "\xff\xfe/\x80", 0700), 0);
        QVERIFY(removeTree(m_parent.get(), "\xff\xfe"));
        QVERIFY(!present("\xff\xfe"));
    }

    void removesALinkInsteadOfWhatItLeadsTo()
    {
        QCOMPARE(::mkdirat(m_parent.get(), "outside", 0700), 0);
        QVERIFY(touch(m_parent.get(), "outside/file"));
        QCOMPARE(::mkdirat(m_parent.get(), "top", 0700), 0);
        QCOMPARE(::symlinkat("../outside", m_parent.get(), "top/link"), 0);
        QCOMPARE(::symlinkat("nowhere", m_parent.get(), "top/dangling"), 0);
        QCOMPARE(::symlinkat("outside", m_parent.get(), "link"), 0);
        QVERIFY(removeTree(m_parent.get(), "top"));
        QVERIFY(removeTree(m_parent.get(), "link"));
        QVERIFY(!present("top"));
        QVERIFY(!present("link"));
        QVERIFY(present("outside/file"));
    }

    void removesATreeDeeperThanThereAreDescriptors()
    {
        constexpr int kDepth = 200;
        Fd folder(::openat(m_parent.get(), ".", kFolderFlags));
        for (int depth = 0; depth < kDepth; ++depth) {
            QCOMPARE(::mkdirat(folder.get(), "deep", 0700), 0);
            QVERIFY(touch(folder.get(), "file"));
            folder = Fd(::openat(folder.get(), "deep", kFolderFlags));
            QVERIFY(folder);
        }
        folder.reset();
        const qsizetype before = openDescriptors();
        rlimit usual = {};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &usual), 0);
        const rlimit few = {rlim_t{kDepth / 2}, usual.rlim_max};
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &few), 0);
        const bool removed = removeTree(m_parent.get(), "deep");
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &usual), 0);
        QVERIFY(removed);
        QVERIFY(!present("deep"));
        QCOMPARE(openDescriptors(), before);
    }

    void saysThatThereWasNothingToRemove()
    {
        QVERIFY(!removeTree(m_parent.get(), "missing"));
    }

    void removesWhatItCanOfATreeThatHoldsSomethingElse()
    {
        if (::getuid() != 0)
            QSKIP("only root can make files that cannot be deleted");
        QVERIFY(QDir(m_scratch->path()).mkpath(u"top/kept"_s));
        QVERIFY(QDir(m_scratch->path()).mkpath(u"top/gone"_s));
        QVERIFY(touch(m_parent.get(), "top/gone/file"));
        QVERIFY(touch(m_parent.get(), "top/kept/file"));
        constexpr uid_t kNobody = 65534;
        for (const char *path : {".", "top", "top/gone", "top/gone/file"})
            QCOMPARE(::fchownat(m_parent.get(), path, kNobody, static_cast<gid_t>(-1), 0), 0);
        QCOMPARE(::seteuid(kNobody), 0);
        const bool removed = removeTree(m_parent.get(), "top");
        QCOMPARE(::seteuid(0), 0);
        QVERIFY(!removed);
        QVERIFY(!present("top/gone"));
        QVERIFY(present("top/kept/file"));
    }

    void visitsEveryFileOnceAndEachFolderAfterWhatItHolds()
    {
        QVERIFY(QDir(m_scratch->path()).mkpath(u"top/one/two"_s));
        QVERIFY(touch(m_parent.get(), "top/a"));
        QVERIFY(touch(m_parent.get(), "top/one/two/.b"));
        QCOMPARE(::symlinkat("one", m_parent.get(), "top/c"), 0);
        QStringList files;
        QStringList folders;
        QVERIFY(walkTree(
            m_parent.get(), "top", [&](int, const char *name) { return files.append(QString::fromUtf8(name)), true; },
            [&](int, const char *name) { return folders.append(QString::fromUtf8(name)), true; }));
        files.sort();
        QCOMPARE(files, QStringList({u".b"_s, u"a"_s, u"c"_s}));
        QCOMPARE(folders, QStringList({u"two"_s, u"one"_s, u"top"_s}));
    }

    void removesWhatIsTooDeepAlone()
    {
        QVERIFY(QDir(m_scratch->path()).mkpath(u"top/a/b/c/d"_s));
        QVERIFY(QDir(m_scratch->path()).mkpath(u"top/other"_s));
        for (const char *file : {"top/file", "top/a/file", "top/a/b/file", "top/a/b/c/d/file", "top/other/file"})
            QVERIFY(touch(m_parent.get(), file));
        QVERIFY(removeDeep(m_parent.get(), "top", 3, 1000));
        for (const char *kept : {"top/file", "top/a/file", "top/a/b/file", "top/other/file"})
            QVERIFY2(present(kept), kept);
        QVERIFY(!present("top/a/b/c"));
    }

    void removesWhatHasTooLongAPath()
    {
        const QString folder(100, u'x');
        QVERIFY(QDir(m_scratch->path()).mkpath(u"top/%1/%1/%1/%1"_s.arg(folder)));
        QVERIFY(removeDeep(m_parent.get(), "top", 100, 200));
        const QByteArray kept = QByteArray("top/") + folder.toLatin1() + '/' + folder.toLatin1();
        QVERIFY(present(kept.constData()));
        QVERIFY(!present((kept + '/' + folder.toLatin1()).constData()));
    }

    void endsAWalkThatIsNotToGoOn()
    {
        QVERIFY(QDir(m_scratch->path()).mkpath(u"top/a"_s));
        QVERIFY(QDir(m_scratch->path()).mkpath(u"top/b"_s));
        int seen = 0;
        const EntryVisitor count = [&](int, const char *) { return ++seen > 0; };
        const WalkLimits limits = {false, [&] { return seen == 0; }};
        QVERIFY(!walkTree(m_parent.get(), "top", count, count, {}, limits));
        QCOMPARE(seen, 1);
    }

    void walksNoLinkAndNoFile()
    {
        QVERIFY(QDir(m_scratch->path()).mkpath(u"outside"_s));
        QVERIFY(touch(m_parent.get(), "outside/file"));
        QCOMPARE(::symlinkat("outside", m_parent.get(), "link"), 0);
        const auto fail = [](int, const char *) { return false; };
        for (const char *name : {"link", "outside/file", "missing"})
            QVERIFY(!walkTree(m_parent.get(), name, fail, fail));
    }

private:
    bool present(const char *name)
    {
        struct stat status = {};
        return ::fstatat(m_parent.get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0;
    }

    std::unique_ptr<QTemporaryDir> m_scratch;
    Fd m_parent;
};

QTEST_GUILESS_MAIN(TestTree)
#include "test_tree.moc"
