#include "agent/backup/Trailer.h"
#include "common/BackupConfig.h"
#include "common/BackupFolders.h"
#include "common/BackupManifest.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <ctime>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv::backup;

namespace {

const QDate kToday(2025, 3, 20);

const QByteArray kManifestText = R"({
    "accounts": [
        {
            "dbBytes": 42,
            "domain": "example.org",
            "homeBytes": 3000000000,
            "username": "alice"
        },
        {
            "dbBytes": 0,
            "domain": "",
            "homeBytes": 0,
            "username": "bob"
        }
    ],
    "created": 1741490105,
    "errors": [
        "bob files: tar failed: x\ny"
    ],
    "name": "2025-03-09_031500",
    "panelBytes": 7,
    "seconds": 5
}
)";

bool writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

} // namespace

class TestBackup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tellsTheEndOfAnArchive_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("isEnd");
        QTest::newRow("10,240 bytes") << QByteArray("\x12\x34\x56\x78\x00\x28\x00\x00", 8) << true;
        QTest::newRow("two zeros behind it") << QByteArray("\x56\x78\x00\x28\x00\x00\x00\x00", 8) << true;
        QTest::newRow("one zero behind it") << QByteArray("\x34\x56\x78\x00\x28\x00\x00\x00", 8) << true;
        QTest::newRow("512 bytes, one zero behind it") << QByteArray("\x34\x56\x78\x00\x02\x00\x00\x00", 8) << true;
        QTest::newRow("many zeros behind it") << QByteArray(8, '\0') << true;
        QTest::newRow("more than 4 GiB") << QByteArray("\x12\x34\x56\x78\x00\xe0\xff\xff", 8) << true;
        QTest::newRow("one byte behind it") << QByteArray("\x34\x56\x78\x00\x28\x00\x00x", 8) << false;
        QTest::newRow("a text behind it") << QByteArray("\x00\x00 more", 7) << false;
        QTest::newRow("a line behind it") << QByteArray("\x28\x00\x00more\n", 8) << false;
        QTest::newRow("no whole block") << QByteArray("\x12\x34\x56\x78\x01\x28\x00\x00", 8) << false;
        QTest::newRow("half a block") << QByteArray("\x00\x01\x00\x00", 4) << false;
        QTest::newRow("four bytes") << QByteArray("\x00\x28\x00\x00", 4) << true;
        QTest::newRow("cut short") << QByteArray("\x00\x00\x00", 3) << false;
        QTest::newRow("nothing") << QByteArray() << false;
    }

    void tellsTheEndOfAnArchive()
    {
        QFETCH(QByteArray, bytes);
        QTEST(isEndOfArchive(bytes), "isEnd");
    }

    void init()
    {
        m_scratch = std::make_unique<QTemporaryDir>();
        QVERIFY(m_scratch->isValid());
    }

    void readsTheDaysToKeep_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<int>("days");
        QTest::newRow("absent") << QByteArray() << 14;
        QTest::newRow("a year") << QByteArray("keep_days=365") << 365;
        QTest::newRow("one") << QByteArray("keep_days=1") << 1;
        QTest::newRow("none") << QByteArray("keep_days=0") << 1;
        QTest::newRow("negative") << QByteArray("keep_days=-3") << 1;
        QTest::newRow("no number") << QByteArray("keep_days=abc") << 1;
        QTest::newRow("number with a unit") << QByteArray("keep_days=14 days") << 1;
        QTest::newRow("fraction") << QByteArray("keep_days=2.5") << 1;
        QTest::newRow("empty") << QByteArray("keep_days=") << 1;
        QTest::newRow("list") << QByteArray("keep_days=30,60") << 1;
        QTest::newRow("largest") << QByteArray("keep_days=2147483647") << 2147483647;
        QTest::newRow("one too large") << QByteArray("keep_days=2147483648") << 2147483647;
        QTest::newRow("would wrap to 14") << QByteArray("keep_days=4294967310") << 2147483647;
        QTest::newRow("too large for 64 bits") << QByteArray("keep_days=99999999999999999999") << 1;
    }

    void readsTheDaysToKeep()
    {
        QFETCH(QByteArray, line);
        QFETCH(int, days);
        QCOMPARE(loaded(line).keepDays, days);
    }

    void readsTheDestination_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("destination");
        QTest::newRow("absent") << QByteArray() << u"/var/backups/corvane/auto"_s;
        QTest::newRow("as it is") << QByteArray("destination=/srv/backup") << u"/srv/backup"_s;
        QTest::newRow("normalised") << QByteArray("destination=/srv/./backup//old/../auto/") << u"/srv/backup/auto"_s;
        QTest::newRow("empty") << QByteArray("destination=") << QString();
        QTest::newRow("unquoted comma") << QByteArray("destination=/srv/a,b") << QString();
        QTest::newRow("quoted comma") << QByteArray("destination=\"/srv/a,b\"") << u"/srv/a,b"_s;
        QTest::newRow("relative") << QByteArray("destination=backup/") << u"backup"_s;
    }

    void readsTheDestination()
    {
        QFETCH(QByteArray, line);
        QFETCH(QString, destination);
        QCOMPARE(loaded(line).destination, destination);
    }

    void knowsABackupByItsName_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("known");
        QTest::newRow("stamp") << u"2025-03-09_031500"_s << true;
        QTest::newRow("no valid time") << u"2025-13-01_000000"_s << true;
        QTest::newRow("empty") << QString() << false;
        QTest::newRow("trailing line feed") << u"2025-03-09_031500\n"_s << false;
        QTest::newRow("embedded NUL") << QString(u"2025-03-09_031500"_s + QChar(0)) << false;
        QTest::newRow("leading blank") << u" 2025-03-09_031500"_s << false;
        QTest::newRow("one digit short") << u"2025-03-09_03150"_s << false;
        QTest::newRow("one digit long") << u"2025-03-09_0315000"_s << false;
        QTest::newRow("digits outside ASCII") << u"202\u0665-03-09_031500"_s << false;
        QTest::newRow("path") << u"../2025-03-09_031500"_s << false;
        QTest::newRow("unfinished") << u".partial-2025-03-09_031500"_s << false;
    }

    void knowsABackupByItsName()
    {
        QFETCH(QString, name);
        QFETCH(bool, known);
        QCOMPARE(isBackupName(name), known);
    }

    void decidesWhatIsPast_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QDate>("modified");
        QTest::addColumn<bool>("past");
        const QDate old(2001, 1, 1);
        QTest::newRow("15 days, late on the day") << QByteArray("2025-03-05_230000") << kToday << true;
        QTest::newRow("14 days, early on the day") << QByteArray("2025-03-06_000001") << old << false;
        QTest::newRow("15 days, last second") << QByteArray("2025-03-05_235959") << kToday << true;
        QTest::newRow("14 days, first second") << QByteArray("2025-03-06_000000") << old << false;
        QTest::newRow("today") << QByteArray("2025-03-20_120000") << old << false;
        QTest::newRow("in the future") << QByteArray("2026-01-01_000000") << old << false;
        QTest::newRow("long ago") << QByteArray("1999-12-31_235959") << kToday << true;
        QTest::newRow("leap day") << QByteArray("2024-02-29_000000") << kToday << true;
        QTest::newRow("no month 13") << QByteArray("2024-13-01_000000") << old << false;
        QTest::newRow("no leap day") << QByteArray("2023-02-29_000000") << old << false;
        QTest::newRow("no hour 24") << QByteArray("2024-01-01_240000") << old << false;
        QTest::newRow("no second 60") << QByteArray("2024-01-01_000060") << old << false;
        QTest::newRow("no year 0") << QByteArray("0000-01-01_000000") << old << false;
        QTest::newRow("unfinished, yesterday") << QByteArray(".partial-x") << kToday.addDays(-1) << true;
        QTest::newRow("unfinished, today") << QByteArray(".partial-2001-01-01_000000") << kToday << false;
        QTest::newRow("unfinished, in the future") << QByteArray(".partial-x") << kToday.addDays(1) << false;
        QTest::newRow("unfinished, no text") << QByteArray(".partial-\xff") << old << true;
        QTest::newRow("unfinished, other case") << QByteArray(".Partial-x") << old << false;
        QTest::newRow("something else") << QByteArray("old") << old << false;
        QTest::newRow("something hidden") << QByteArray(".snapshots") << old << false;
        QTest::newRow("nearly a backup") << QByteArray("2001-01-01_000000.bak") << old << false;
    }

    void decidesWhatIsPast()
    {
        QFETCH(QByteArray, name);
        QFETCH(QDate, modified);
        QFETCH(bool, past);
        QCOMPARE(isPast({name, modified}, kToday, 14), past);
    }

    // At half past two the clock of that night has jumped from two to three.
    void countsDaysAcrossAChangeOfSummerTime()
    {
        const ZoneGuard zone("Europe/Berlin");
        const Folder skipped = {"2025-03-30_023000", {}};
        QVERIFY(!isPast(skipped, QDate(2025, 3, 31), 1));
        QVERIFY(isPast(skipped, QDate(2025, 4, 1), 1));
        const Folder before = {"2025-03-29_235959", {}};
        QVERIFY(!isPast(before, QDate(2025, 3, 30), 1));
        QVERIFY(isPast(before, QDate(2025, 3, 31), 1));
        const Folder twice = {"2025-10-26_023000", {}};
        QVERIFY(!isPast(twice, QDate(2025, 10, 27), 1));
        QVERIFY(isPast(twice, QDate(2025, 10, 28), 1));
    }

    void listsTheFoldersWithTheirLocalDates()
    {
        const ZoneGuard zone("Pacific/Auckland");
        const QString path = m_scratch->path();
        QVERIFY(QDir(path).mkpath(u"plain/below"_s));
        QVERIFY(QDir(path).mkpath(u".hidden"_s));
        QVERIFY(writeFile(path + u"/file"_s, "x"));
        QVERIFY(QFile::link(path + u"/plain"_s, path + u"/link"_s));
        for (const char *name : {"plain", ".hidden"}) {
            const timespec times[] = {{}, {1'742'385'599, 0}}; // 2025-03-19 11:59:59 UTC, half a day ahead in Auckland
            QCOMPARE(
                ::utimensat(AT_FDCWD, QFile::encodeName(path + u'/' + QLatin1StringView(name)).constData(), times, 0),
                0);
        }
        QList<Folder> folders = foldersIn(path);
        std::sort(folders.begin(), folders.end(), [](const Folder &a, const Folder &b) { return a.name < b.name; });
        QCOMPARE(folders.size(), 2);
        QCOMPARE(folders[0].name, ".hidden");
        QCOMPARE(folders[1].name, "plain");
        QCOMPARE(folders[1].modified, QDate(2025, 3, 20));
    }

    void listsNothingOfAFolderThatIsNotThere()
    {
        QVERIFY(foldersIn(m_scratch->path() + u"/missing"_s).isEmpty());
        QVERIFY(foldersIn({}).isEmpty());
    }

    void countsTheBytesOfRegularFiles()
    {
        const QString path = m_scratch->path();
        QVERIFY(QDir(path).mkpath(u"top/.hidden/below"_s));
        QVERIFY(writeFile(path + u"/outside"_s, QByteArray(1000, 'x')));
        QVERIFY(writeFile(path + u"/top/a"_s, QByteArray(1, 'x')));
        QVERIFY(writeFile(path + u"/top/.hidden/b"_s, QByteArray(20, 'x')));
        QVERIFY(writeFile(path + u"/top/.hidden/below/.c"_s, QByteArray(300, 'x')));
        QVERIFY(QFile::link(path + u"/outside"_s, path + u"/top/link"_s));
        QCOMPARE(::mkfifo(QFile::encodeName(path + u"/top/pipe"_s).constData(), 0600), 0);
        QCOMPARE(sizeOf(path + u"/top"_s), 321);
        QCOMPARE(sizeOf(path + u"/outside"_s), 1000);
        QCOMPARE(sizeOf(path + u"/missing"_s), 0);
        QCOMPARE(sizeOf(path + u"/top/link"_s), 0);
        QCOMPARE(sizeOf(path + u"/top/pipe"_s), 0);
    }

    void writesTheManifest()
    {
        const Manifest manifest = {u"2025-03-09_031500"_s,
                                   1'741'490'105,
                                   5,
                                   {{u"alice"_s, u"example.org"_s, 3'000'000'000, 42}, {u"bob"_s, {}, 0, 0}},
                                   7,
                                   {u"bob files: tar failed: x\ny"_s}};
        QCOMPARE(manifestText(manifest), kManifestText);
    }

    void readsAManifest_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QJsonObject>("object");
        QTest::newRow("object") << QByteArray("{\"seconds\": 5}\n") << QJsonObject{{u"seconds"_s, 5}};
        QTest::newRow("empty") << QByteArray() << QJsonObject();
        QTest::newRow("cut short") << QByteArray("{\"seconds\": 5") << QJsonObject();
        QTest::newRow("array") << QByteArray("[{\"seconds\": 5}]") << QJsonObject();
        QTest::newRow("no JSON") << QByteArray("\x7f"
                                               "ELF")
                                 << QJsonObject();
        QTest::newRow("nested too deep") << QByteArray(100'000, '[') << QJsonObject();
        QTest::newRow("as large as may be") << QByteArray("{}" + QByteArray(99'998, ' ')) << QJsonObject();
        QTest::newRow("too large") << QByteArray("{\"a\":1}" + QByteArray(99'994, ' ')) << QJsonObject();
        QTest::newRow("just fits") << QByteArray("{\"a\":1}" + QByteArray(99'993, ' ')) << QJsonObject{{u"a"_s, 1}};
    }

    void readsAManifest()
    {
        QFETCH(QByteArray, text);
        QFETCH(QJsonObject, object);
        QVERIFY(writeFile(m_scratch->filePath(u"manifest.json"_s), text));
        qint64 budget = 100'000;
        QCOMPARE(readManifest(m_scratch->path(), &budget), object);
        QCOMPARE(budget, text.size() <= 100'000 ? 100'000 - text.size() : 100'000);
    }

    void readsNoManifestThatIsNoRegularFile()
    {
        const QString path = m_scratch->path();
        const QByteArray name = QFile::encodeName(m_scratch->filePath(u"manifest.json"_s));
        qint64 budget = 100'000;
        QCOMPARE(readManifest(path, &budget), QJsonObject());
        QVERIFY(writeFile(path + u"/other"_s, "{\"seconds\": 5}"));
        QVERIFY(QFile::link(path + u"/other"_s, m_scratch->filePath(u"manifest.json"_s)));
        QCOMPARE(readManifest(path, &budget), QJsonObject());
        QCOMPARE(::unlink(name.constData()), 0);
        QCOMPARE(::mkfifo(name.constData(), 0600), 0);
        QCOMPARE(readManifest(path, &budget), QJsonObject());
        QCOMPARE(::unlink(name.constData()), 0);
        QCOMPARE(::mkdir(name.constData(), 0700), 0);
        QCOMPARE(readManifest(path, &budget), QJsonObject());
        QCOMPARE(budget, 100'000);
    }

private:
    // Sets the local time zone for as long as it lives.
    class ZoneGuard
    {
    public:
        explicit ZoneGuard(const QByteArray &zone) : m_before(qgetenv("TZ"))
        {
            qputenv("TZ", zone);
            ::tzset();
        }
        ~ZoneGuard()
        {
            qputenv("TZ", m_before);
            ::tzset();
        }
        Q_DISABLE_COPY_MOVE(ZoneGuard)

    private:
        QByteArray m_before;
    };

    Config loaded(const QByteArray &line)
    {
        const QString path = m_scratch->filePath(u"corvane.ini"_s);
        (void)writeFile(path, "[backup]\n" + line + '\n');
        return load(QSettings(path, QSettings::IniFormat));
    }

    std::unique_ptr<QTemporaryDir> m_scratch;
};

QTEST_GUILESS_MAIN(TestBackup)
#include "test_backup.moc"
