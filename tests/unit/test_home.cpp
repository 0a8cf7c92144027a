#include "ctl/doctor/Reach.h"
#include "ctl/home/Archive.h"
#include "ctl/home/Beneath.h"
#include "mend_of.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv;
using namespace corv::ctl;

class TestHome : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void takesPathsThatStayInside_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("plain") << QByteArray("a/b") << QByteArray("a/b");
        QTest::newRow("slashes") << QByteArray("a//./b/") << QByteArray("a/b");
        QTest::newRow("dots in a name") << QByteArray("..a/b..") << QByteArray("..a/b..");
        QTest::newRow("up") << QByteArray("a/../b") << QByteArray();
        QTest::newRow("from the root") << QByteArray("/a") << QByteArray();
        QTest::newRow("the folder itself") << QByteArray("./") << QByteArray();
        QTest::newRow("nothing") << QByteArray() << QByteArray();
        QTest::newRow("a null byte") << QByteArray("a\0b", 3) << QByteArray();
    }
    void takesPathsThatStayInside()
    {
        QFETCH(QByteArray, path);
        QTEST(insidePath(path), "expected");
    }

    void readsLinesOfAnArchive_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("expected");
        QTest::newRow("folder") << QByteArray("drwxr-s--- tiny/www-data 0 2026-01-05 03:15 tiny/public_html/")
                                << u"public_html 2750 folder plain web"_s;
        QTest::newRow("file") << QByteArray("-rw-r--r-- tiny/tiny    120 2026-01-05 03:15 tiny/a b")
                              << u"a b 644 plain"_s;
        QTest::newRow("special bits") << QByteArray("-rwsr-Sr-T tiny/tiny 1 2026-01-05 03:15 tiny/x")
                                      << u"x 7744 plain"_s;
        QTest::newRow("link") << QByteArray("lrwxrwxrwx tiny/tiny 0 2026-01-05 03:15 tiny/l -> /etc/passwd")
                              << u"l 777"_s;
        QTest::newRow("second name") << QByteArray("hrw-r--r-- tiny/tiny 0 2026-01-05 03:15 tiny/h link to tiny/x")
                                     << u"h 644"_s;
        QTest::newRow("arrow in a name") << QByteArray("-rw-r--r-- tiny/tiny 0 2026-01-05 03:15 tiny/a -> b")
                                         << u"a -> b 644 plain"_s;
        QTest::newRow("arrow in a link's name")
            << QByteArray("lrwxrwxrwx tiny/tiny 0 2026-01-05 03:15 tiny/a\\ ->\\ b -> x") << u"a -> b 777"_s;
        QTest::newRow("words in a second name")
            << QByteArray("hrw-r--r-- tiny/tiny 0 2026-01-05 03:15 tiny/a\\ link\\ to\\ b link to tiny/x")
            << u"a link to b 644"_s;
        QTest::newRow("escapes") << QByteArray("-rw-r--r-- tiny/tiny 0 2026-01-05 03:15 tiny/a\\n\\\\b\\303\\251\\t")
                                 << u"a\n\\bé\t 644 plain"_s;
        QTest::newRow("no user of that name")
            << QByteArray("-rw-r--r-- 1001/33 0 2026-01-05 03:15 tiny/x") << u"x 644 plain"_s;
        QTest::newRow("the home") << QByteArray("drwx--x--- tiny/www-data 0 2026-01-05 03:15 tiny/") << QString();
        QTest::newRow("above") << QByteArray("-rw-r--r-- tiny/tiny 0 2026-01-05 03:15 tiny/a/../../x") << QString();
        QTest::newRow("above, in disguise")
            << QByteArray("-rw-r--r-- tiny/tiny 0 2026-01-05 03:15 tiny/\\056\\056/x") << QString();
        QTest::newRow("no name") << QByteArray("-rw-r--r-- tiny/tiny 0 2026-01-05 03:15 tiny//x") << QString();
        QTest::newRow("another's") << QByteArray("-rw-r--r-- tiny/tiny 0 2026-01-05 03:15 tiny2/x") << QString();
        QTest::newRow("another mode") << QByteArray("-rw-q--r-- tiny/tiny 0 2026-01-05 03:15 tiny/x") << QString();
        QTest::newRow("a word") << QByteArray("tar:") << QString();
        QTest::newRow("nothing") << QByteArray() << QString();
    }
    void readsLinesOfAnArchive()
    {
        QFETCH(QByteArray, line);
        const std::optional<ArchiveEntry> entry = parseArchiveLine(line, "tiny");
        QString found;
        if (entry) {
            found = QString::fromUtf8(entry->path) + u' ' + QString::number(entry->mode, 8);
            found += (entry->isFolder ? u" folder"_s : QString()) + (entry->isPlain ? u" plain"_s : QString()) +
                     (entry->isWebs ? u" web"_s : QString());
        }
        QTEST(found, "expected");
    }

    void setsNoSpecialBitOfAFile()
    {
        QTemporaryDir scratch;
        const QByteArray path = QFile::encodeName(scratch.filePath(u"file"_s));
        QVERIFY(Fd(::open(path.constData(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)));
        const Fd folder(::open(QFile::encodeName(scratch.path()).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        QVERIFY(setAccess(folder.get(), "file", static_cast<gid_t>(-1), 07755));
        struct stat status = {};
        QCOMPARE(::stat(path.constData(), &status), 0);
        QCOMPARE(status.st_mode & ALLPERMS, mode_t(0755));
        QCOMPARE(::symlink("file", QFile::encodeName(scratch.filePath(u"link"_s)).constData()), 0);
        QVERIFY(!setAccess(folder.get(), "link", static_cast<gid_t>(-1), 0777));
        QVERIFY(!setAccess(folder.get(), "missing", static_cast<gid_t>(-1), 0777));
    }

    void opensNoLinkOnTheWay()
    {
        QTemporaryDir scratch;
        QVERIFY(QDir(scratch.path()).mkpath(u"a/b"_s));
        QCOMPARE(::symlink("a", QFile::encodeName(scratch.filePath(u"link"_s)).constData()), 0);
        const Fd folder(::open(QFile::encodeName(scratch.path()).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        QVERIFY(openBeneath(folder.get(), ""));
        QVERIFY(openBeneath(folder.get(), "a/b"));
        QVERIFY(!openBeneath(folder.get(), "link/b"));
        QCOMPARE(errno, ENOTDIR);
        QVERIFY(!openBeneath(folder.get(), "a/c"));
        QCOMPARE(errno, ENOENT);
    }

    void saysWhatTheWebServerCannotReach()
    {
        QStringList said;
        for (const Finding &finding : checkReach({{u"a"_s, OutOfReach::What::Home, 0, {}},
                                                  {u"b"_s, OutOfReach::What::Missing, 0, {}},
                                                  {u"c"_s, OutOfReach::What::Pages, 0, {}},
                                                  {u"d"_s, OutOfReach::What::Below, 1, "public_html/x"},
                                                  {u"e"_s, OutOfReach::What::Below, 3, "public_html/y"}}))
            said.append((finding.level == Level::Fault ? u"fault|"_s : u"note|"_s) + finding.problem + u'|' +
                        mendOf(finding));
        QCOMPARE(
            said,
            QStringList({
                u"fault|the web server cannot go through the home of the account a|corvctl account publish a"_s,
                u"fault|the account b has no folder public_html|corvctl account publish b"_s,
                u"fault|the web server cannot read the folder public_html of the account c|corvctl account publish c"_s,
                u"fault|the web server cannot read public_html/x of the account d|corvctl account publish d"_s,
                u"fault|the web server cannot read 3 files and folders of the account e, such as public_html/y|corvctl account publish e"_s,
            }));
    }
};

QTEST_GUILESS_MAIN(TestHome)
#include "test_home.moc"
