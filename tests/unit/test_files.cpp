// The source itself, for what it keeps to itself: moving on file systems that cannot move without replacing.
#include "agent/files/Helper.h"
#include "agent/files/Names.h"
#include "agent/files/Operations.h"
#include "agent/files/Transfer.h"
#include "agent/files/Tree.cpp" // NOLINT(bugprone-suspicious-include)
#include "common/Text.h"
#include "common/Transfer.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QTemporaryDir>
#include <QTest>

#include <array>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv;
using namespace corv::files;

class TestFiles : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_scratch = std::make_unique<QTemporaryDir>();
        QVERIFY(m_scratch->isValid());
    }

    // The framework's own removal passes over names that are not UTF-8.
    void cleanup()
    {
        QVERIFY(remove(folder()).value("ok"_L1).toBool());
    }

    void resolvesAPath_data()
    {
        QTest::addColumn<QString>("home");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("target");
        const QString home = u"/home/alice"_s;
        QTest::newRow("a file") << home << u"a.txt"_s << u"/home/alice/a.txt"_s;
        QTest::newRow("a leading slash") << home << u"/a/b"_s << u"/home/alice/a/b"_s;
        QTest::newRow("empty") << home << QString() << home;
        QTest::newRow("a slash") << home << u"/"_s << home;
        QTest::newRow("slashes") << home << u"//a///b//"_s << u"/home/alice/a/b"_s;
        QTest::newRow("a dot") << home << u"."_s << home;
        QTest::newRow("dots between") << home << u"./a/./b/."_s << u"/home/alice/a/b"_s;
        QTest::newRow("back to the home") << home << u"a/.."_s << home;
        QTest::newRow("out and back in") << home << u"../alice/a"_s << u"/home/alice/a"_s;
        QTest::newRow("out and back home") << home << u"../alice"_s << home;
        QTest::newRow("another home") << home << u"../other/x"_s << QString();
        QTest::newRow("far out") << home << u"/../../etc/passwd"_s << QString();
        QTest::newRow("farther than the root") << home << u"../../../../etc/passwd"_s << QString();
        QTest::newRow("through a folder") << home << u"a/../../bob"_s << QString();
        QTest::newRow("the folder of homes") << home << u".."_s << QString();
        QTest::newRow("a name with a common prefix") << home << u"../alice2/x"_s << QString();
        QTest::newRow("a home with a common prefix") << home << u"../alice2"_s << QString();
        QTest::newRow("upper case") << home << u"../Alice/x"_s << QString();
        QTest::newRow("three dots are a name") << home << u".../x"_s << u"/home/alice/.../x"_s;
        QTest::newRow("dots in a name") << home << u"..a/b.."_s << u"/home/alice/..a/b.."_s;
        QTest::newRow("a backslash is no separator") << home << u"..\\..\\x"_s << u"/home/alice/..\\..\\x"_s;
        QTest::newRow("blanks stay") << home << u" a "_s << u"/home/alice/ a "_s;
        QTest::newRow("a home with a slash at its end") << u"/home/alice/"_s << u"a"_s << QString();
        QTest::newRow("a home that is not normal") << u"/home/../etc"_s << u"passwd"_s << QString();
        QTest::newRow("no home") << QString() << u"etc"_s << u"/etc"_s;
    }

    void resolvesAPath()
    {
        QFETCH(QString, home);
        QFETCH(QString, path);
        QFETCH(QString, target);
        QCOMPARE(resolve(home, path), target);
    }

    void knowsATransferName_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("valid");
        QTest::newRow("16 characters") << u"abcdefgh-_ABCD09"_s << true;
        QTest::newRow("15 characters") << u"abcdefghijklmno"_s << false;
        QTest::newRow("64 characters") << QString(64, u'x') << true;
        QTest::newRow("65 characters") << QString(65, u'x') << false;
        QTest::newRow("empty") << QString() << false;
        QTest::newRow("a dot") << u"abcdefghijklmno.p"_s << false;
        QTest::newRow("a slash") << u"abcdefghijklmno/p"_s << false;
        QTest::newRow("a way out") << u"../../../../etc/shadow"_s << false;
        QTest::newRow("a blank") << u"abcdefghijklmno p"_s << false;
        QTest::newRow("a trailing line feed") << u"abcdefghijklmnop\n"_s << false;
        QTest::newRow("an embedded NUL") << QString(u"abcdefghijklmnop"_s + QChar(0)) << false;
        QTest::newRow("a letter outside ASCII") << u"abcdefghijklmnopé"_s << false;
        QTest::newRow("a leading dash") << u"-bcdefghijklmnop"_s << true;
    }

    void knowsATransferName()
    {
        QFETCH(QString, name);
        QFETCH(bool, valid);
        QCOMPARE(validTransferName(name), valid);
    }

    void showsANameThatIsNotUtf8()
    {
        QCOMPARE(shown("caf\xE9"), u"caf\uFFFD"_s);
        QCOMPARE(shown("caf\xE9.html"), u"caf\uFFFD.html"_s);
        QCOMPARE(shown("\xEF\xBB\xBFx"), u"\uFEFFx"_s);
        QCOMPARE(shown("caf\xC3\xA9"), u"café"_s);
    }

    void findsANameThatIsNotUtf8ByWhatIsShown()
    {
        make("caf\xE9");
        QCOMPARE(storedPath(at(u"caf\uFFFD"_s)), bytesAt("caf\xE9"));
        QCOMPARE(storedPath(at(u"tea\uFFFD"_s)), bytesAt("tea\xEF\xBF\xBD"));
    }

    void findsAFolderThatIsNotUtf8OnTheWay()
    {
        QVERIFY(::mkdir(bytesAt("d\xE9").constData(), 0700) == 0);
        make("d\xE9/caf\xE9");
        QCOMPARE(storedPath(at(u"d\uFFFD/caf\uFFFD"_s)), bytesAt("d\xE9/caf\xE9"));
        QCOMPARE(storedPath(at(u"d\uFFFD/new"_s)), bytesAt("d\xE9/new"));
    }

    void doesNotGuessBetweenTwoNamesThatLookAlike()
    {
        make("caf\xE9");
        make("caf\xE8");
        QCOMPARE(storedPath(at(u"caf\uFFFD"_s)), bytesAt("caf\xEF\xBF\xBD"));
    }

    void prefersTheNameThatIsReallyWrittenSo()
    {
        make("caf\xE9");
        make("caf\xEF\xBF\xBD");
        QCOMPARE(storedPath(at(u"caf\uFFFD"_s)), bytesAt("caf\xEF\xBF\xBD"));
    }

    void listsFoldersFirstThenByNameWithoutLetterCase()
    {
        for (const char *name : {"b", "A", "B", "a", "_", "Z", "\xC3\x84", "\xC3\xA4", "zz", ".x", "10", "9"})
            make(name);
        for (const char *name : {"y", "X"})
            QVERIFY(::mkdir(bytesAt(name).constData(), 0700) == 0);
        QVERIFY(QFile::link(u"y"_s, at(u"m"_s)));
        QVERIFY(QFile::link(u"gone"_s, at(u"n"_s)));
        QCOMPARE(names(), QStringList({u"m"_s, u"X"_s, u"y"_s, u".x"_s, u"10"_s, u"9"_s, u"_"_s, u"A"_s, u"a"_s, u"B"_s,
                                       u"b"_s, u"n"_s, u"Z"_s, u"zz"_s, u"Ä"_s, u"ä"_s}));
    }

    void tellsAllOfAnEntry()
    {
        make("file", "12345", 04751);
        const std::array<timespec, 2> times = {{{1'000'000'000, 0}, {1'234'567'890, 0}}};
        QVERIFY(::utimensat(AT_FDCWD, bytesAt("file").constData(), times.data(), 0) == 0);
        QVERIFY(QFile::link(u"file"_s, at(u"link"_s)));
        QVERIFY(QFile::link(u"gone"_s, at(u"nowhere"_s)));
        const QJsonObject file{{u"name"_s, u"file"_s}, {u"dir"_s, false},           {u"link"_s, false},
                               {u"size"_s, 5},         {u"mtime"_s, 1'234'567'890}, {u"mode"_s, u"751"_s}};
        QJsonObject link = file;
        link[u"name"_s] = u"link"_s;
        link[u"link"_s] = true;
        const QJsonObject nowhere{{u"name"_s, u"nowhere"_s}, {u"dir"_s, false},  {u"link"_s, true}, {u"size"_s, 0},
                                  {u"mtime"_s, 0},           {u"mode"_s, u"0"_s}};
        QCOMPARE(
            list(folder()),
            QJsonObject({{u"ok"_s, true}, {u"entries"_s, QJsonArray({file, link, nowhere})}, {u"truncated"_s, false}}));
    }

    void keepsTheFirstEntriesOfMany_data()
    {
        QTest::addColumn<int>("count");
        QTest::addColumn<bool>("truncated");
        QTest::newRow("as many as are told") << 5'000 << false;
        QTest::newRow("one more") << 5'001 << true;
        QTest::newRow("many times as many") << 23'456 << true;
    }

    void keepsTheFirstEntriesOfMany()
    {
        QFETCH(int, count);
        QFETCH(bool, truncated);
        QStringList all;
        for (int i = 0; i < count; ++i) {
            const QString name = u"%1%2"_s.arg(i % 2 == 0 ? u'f' : u'F').arg((i * 7919) % 99'991, 5, 10, QChar(u'0'));
            all.append(name);
            make(name.toUtf8().constData());
        }
        std::sort(all.begin(), all.end(),
                  [](const QString &left, const QString &right) { return left.toLower() < right.toLower(); });
        QVERIFY(QDir(QString::fromUtf8(folder())).mkdir(u"zzz"_s)); // comes first, wherever it is read
        QVERIFY(QFile::link(u"zzz"_s, at(u"zzzz"_s)));
        QCOMPARE(names(), QStringList{u"zzz"_s} + QStringList{u"zzzz"_s} + all.first(4'998));
        QVERIFY(QFile::remove(at(u"zzzz"_s)) && QDir(QString::fromUtf8(folder())).rmdir(u"zzz"_s));
        QCOMPARE(names(), all.first(std::min(count, 5'000)));
        QCOMPARE(list(folder()).value("truncated"_L1).toBool(), truncated);
    }

    void movesAFileInSteps()
    {
        make("old", "text");
        QVERIFY(moveInSteps(bytesAt("old").constData(), bytesAt("new").constData()));
        QCOMPARE(names(), QStringList{u"new"_s});
        QCOMPARE(content(u"new"_s), QByteArray("text"));
    }

    void movesALinkInSteps()
    {
        QVERIFY(QFile::link(u"gone"_s, at(u"old"_s)));
        QVERIFY(moveInSteps(bytesAt("old").constData(), bytesAt("new").constData()));
        QCOMPARE(names(), QStringList{u"new"_s});
        QVERIFY(QFileInfo(at(u"new"_s)).isSymLink());
    }

    void movesAFolderInSteps()
    {
        QVERIFY(QDir(QString::fromUtf8(folder())).mkpath(u"old/below"_s));
        QVERIFY(moveInSteps(bytesAt("old").constData(), bytesAt("new").constData()));
        QCOMPARE(names(), QStringList{u"new"_s});
        QVERIFY(QFileInfo(at(u"new/below"_s)).isDir());
    }

    void replacesNothingWhenItMovesInSteps_data()
    {
        QTest::addColumn<bool>("folderMoves");
        QTest::addColumn<QString>("obstacle");
        for (const bool folderMoves : {false, true}) {
            for (const char *obstacle : {"file", "folder", "link"})
                QTest::addRow("%s onto a %s", folderMoves ? "folder" : "file", obstacle)
                    << folderMoves << QString::fromLatin1(obstacle);
        }
    }

    void replacesNothingWhenItMovesInSteps()
    {
        QFETCH(bool, folderMoves);
        QFETCH(QString, obstacle);
        const QDir top(QString::fromUtf8(folder()));
        if (folderMoves)
            QVERIFY(top.mkdir(u"old"_s));
        else
            make("old");
        if (obstacle == "file"_L1)
            make("new", "kept");
        else if (obstacle == "folder"_L1)
            QVERIFY(top.mkdir(u"new"_s));
        else
            QVERIFY(QFile::link(u"gone"_s, at(u"new"_s)));
        QVERIFY(!moveInSteps(bytesAt("old").constData(), bytesAt("new").constData()));
        QCOMPARE(errno, EEXIST);
        QVERIFY(QFileInfo::exists(at(u"old"_s)));
        QVERIFY(obstacle != "file"_L1 || content(u"new"_s) == "kept");
        QVERIFY(obstacle != "link"_L1 || QFileInfo(at(u"new"_s)).isSymLink());
    }

    void leavesNothingWhenAFolderCannotMoveInSteps()
    {
        QVERIFY(QDir(QString::fromUtf8(folder())).mkdir(u"old"_s));
        QVERIFY(!moveInSteps(bytesAt("old").constData(), bytesAt("old/new").constData()));
        QVERIFY(QDir(at(u"old"_s)).isEmpty());
    }

private:
    [[nodiscard]] QByteArray folder() const
    {
        return QFile::encodeName(m_scratch->path());
    }
    [[nodiscard]] QByteArray bytesAt(const char *name) const
    {
        return folder() + '/' + name;
    }
    [[nodiscard]] QString at(const QString &name) const
    {
        return m_scratch->path() + u'/' + name;
    }

    void make(const char *name, const QByteArray &data = {}, mode_t mode = 0644)
    {
        const Fd file(::open(bytesAt(name).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        QVERIFY(file && writeAll(file.get(), data) && ::fchmod(file.get(), mode) == 0);
    }

    [[nodiscard]] QByteArray content(const QString &name) const
    {
        QFile file(at(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be opened");
    }

    // The names that the list tells, in its order.
    [[nodiscard]] QStringList names() const
    {
        QStringList found;
        const QJsonArray entries = list(folder()).value("entries"_L1).toArray();
        for (const auto &entry : entries)
            found.append(entry.toObject().value("name"_L1).toString());
        return found;
    }

    std::unique_ptr<QTemporaryDir> m_scratch;
};

QTEST_APPLESS_MAIN(TestFiles)
#include "test_files.moc"
