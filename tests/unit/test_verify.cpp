#include "ctl/verify/CopyCounter.h"
#include "ctl/verify/Fault.h"
#include "ctl/verify/Holdings.h"
#include "ctl/verify/Proof.h"
#include "ctl/verify/Reader.h"
#include "ctl/verify/Verdict.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;

namespace {

// A dump that PostgreSQL 15 made of a database "shop" with two tables, of 40 and 2 rows.
const auto kDump = u"data/shop.dump"_s;

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

// Runs the real tar, gzip and pg_restore, under the user that reads saved files, so it needs root.
class TestVerify : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_folder;

    QString written(const QString &name, const QByteArray &content)
    {
        const QString path = m_folder.filePath(name);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(path));
        return path;
    }

    void shell(const QString &script)
    {
        QProcess process;
        process.setWorkingDirectory(m_folder.path());
        process.start(u"sh"_s, {u"-ec"_s, script});
        if (!process.waitForFinished() || process.exitCode() != 0)
            qFatal("%s: %s", qPrintable(script), process.readAllStandardError().constData());
    }

    // The archive of the home of an account shop.
    QByteArray archive()
    {
        return contentOf(m_folder.filePath(u"shop-home.tar.gz"_s));
    }

private Q_SLOTS:
    void initTestCase()
    {
        shell(u"mkdir -p shop/a other; head -c 300000 /dev/urandom >shop/a/noise; echo x >shop/b; ln -s /etc/passwd "
              u"shop/l;"
              "tar -czf shop-home.tar.gz shop; tar -czf other-home.tar.gz other; tar -czf both.tar.gz shop other;"
              "tar -czf none.tar.gz -T /dev/null; tar -cf - shop | head -c 200000 | gzip >short.tar.gz;"
              "tar -cf plain.tar shop; mkfifo pipe; ln -s shop-home.tar.gz link"_s);
    }

    void passesAWholeArchive()
    {
        QCOMPARE(faultOfArchive(m_folder.filePath(u"shop-home.tar.gz"_s), {}), std::nullopt);
        QCOMPARE(faultOfHome(m_folder.filePath(u"shop-home.tar.gz"_s), u"shop"_s, {}), std::nullopt);
    }

    void findsWhatIsWrongWithAnArchive_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("fault");
        QTest::newRow("missing") << u"nothing"_s << u"is missing"_s;
        QTest::newRow("empty") << u"empty"_s << u"is empty"_s;
        QTest::newRow("folder") << u"shop"_s << u"is no regular file"_s;
        QTest::newRow("fifo") << u"pipe"_s << u"is no regular file"_s;
        QTest::newRow("link") << u"link"_s << u"cannot be opened: Too many levels of symbolic links"_s;
        QTest::newRow("cut") << u"cut"_s
                             << u"is damaged: gzip: stdin: unexpected end of file; "
                                "tar: Unexpected EOF in archive"_s;
        QTest::newRow("its last byte cut") << u"cut1"_s << u"is damaged: gzip: stdin: unexpected end of file"_s;
        QTest::newRow("one bit of its checksum")
            << u"sum"_s << u"is damaged: gzip: stdin: invalid compressed data--crc error"_s;
        QTest::newRow("something behind it")
            << u"trailing"_s << u"is damaged: gzip: stdin: decompression OK, trailing garbage ignored"_s;
        QTest::newRow("cut before it was packed")
            << u"short.tar.gz"_s << u"is damaged: tar: Unexpected EOF in archive"_s;
        QTest::newRow("not packed") << u"plain.tar"_s << u"is damaged: gzip: stdin: not in gzip format"_s;
    }

    void findsWhatIsWrongWithAnArchive()
    {
        QFETCH(QString, name);
        const QByteArray whole = archive();
        written(u"empty"_s, {});
        written(u"cut"_s, whole.left(whole.size() / 2));
        written(u"cut1"_s, whole.chopped(1));
        written(u"trailing"_s, whole + "more");
        QByteArray other = whole;
        other[other.size() - 5] = static_cast<char>(other[other.size() - 5] ^ 1);
        other[other.size() - 6] = static_cast<char>(other[other.size() - 6] ^ 1);
        written(u"sum"_s, other);
        QTEST(faultOfArchive(m_folder.filePath(name), {}).value_or(QString()), "fault");
        QTEST(faultOfHome(m_folder.filePath(name), u"shop"_s, {}).value_or(QString()), "fault");
    }

    void findsDamageInTheMiddleOfAnArchive()
    {
        QByteArray other = archive();
        for (qsizetype at = other.size() / 2; at < other.size() / 2 + 64; ++at)
            other[at] = static_cast<char>(~other[at]);
        QVERIFY(faultOfArchive(written(u"middle"_s, other), {}).value_or(QString()).startsWith(u"is damaged: "_s));
    }

    void tellsTheHomesOfOthers_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("another's") << u"other-home.tar.gz"_s;
        QTest::newRow("two") << u"both.tar.gz"_s;
        QTest::newRow("none") << u"none.tar.gz"_s;
    }

    void tellsTheHomesOfOthers()
    {
        QFETCH(QString, name);
        QCOMPARE(faultOfHome(m_folder.filePath(name), u"shop"_s, {}),
                 u"is no archive of the home of shop: it holds other files, or none"_s);
    }

    // What an account's user may lay into the home, whose names tar prints.
    void isNotFloodedByNames()
    {
        shell(
            u"rm -rf many; mkdir many; cd many; for i in $(seq 300); do : >\"$(printf '%0200d' $i)\"; done; cd ..; tar -czf many.tar.gz many"_s);
        QCOMPARE(faultOfArchive(m_folder.filePath(u"many.tar.gz"_s), {}), std::nullopt);
        QCOMPARE(faultOfHome(m_folder.filePath(u"many.tar.gz"_s), u"many"_s, {}), std::nullopt);
        QCOMPARE(faultOfHome(m_folder.filePath(u"many.tar.gz"_s), u"shop"_s, {}),
                 u"is no archive of the home of shop: it holds other files, or none"_s);
    }

    void keepsToItsTime()
    {
        // A bomb: gigabytes of zeros in as many megabytes.
        shell(
            u"head -c 67108864 /dev/zero | gzip -1 >zeros.gz; truncate -s 4G zeros;"
            "tar -cf - zeros | head -c 512 | gzip >bomb.tar.gz; for i in $(seq 60); do cat zeros.gz; done >>bomb.tar.gz"_s);
        Bounds bounds;
        bounds.milliseconds = 200;
        QCOMPARE(faultOfArchive(m_folder.filePath(u"bomb.tar.gz"_s), bounds), u"cannot be read: it takes too long"_s);
    }

    void passesAWholeDump()
    {
        QCOMPARE(faultOfDump(kDump, {}), std::nullopt);
        QCOMPARE(faultOfDatabase(kDump, u"shop"_s, {}), std::nullopt);
    }

    void tellsTheDumpsOfOthers()
    {
        QCOMPARE(faultOfDatabase(kDump, u"blog"_s, {}), u"is a dump of another database, shop"_s);
    }

    void findsWhatIsWrongWithADump()
    {
        const QByteArray whole = contentOf(kDump);
        QVERIFY(whole.size() > 4000);
        QCOMPARE(faultOfDump(written(u"empty"_s, {}), {}), u"is empty"_s);
        QCOMPARE(faultOfDump(m_folder.filePath(u"nothing"_s), {}), u"is missing"_s);
        QVERIFY(faultOfDump(written(u"cut"_s, whole.left(whole.size() - 20)), {}));
        QVERIFY(faultOfDump(written(u"half"_s, whole.left(whole.size() / 2)), {}));
        QVERIFY(faultOfDump(written(u"text"_s, "select 1;\n"), {}));
        QCOMPARE(faultOfDatabase(written(u"text"_s, "select 1;\n"), u"shop"_s, {}),
                 u"is damaged: it does not begin as a dump does"_s);
        // In the rows, behind the list that "pg_restore --list" reads.
        QByteArray other = whole;
        other[whole.size() - 300] = static_cast<char>(~other[whole.size() - 300]);
        QVERIFY(faultOfDump(written(u"middle"_s, other), {}));
    }

    void readsTheNameInADump()
    {
        const QByteArray whole = contentOf(kDump);
        QCOMPARE(databaseInDump(whole), QByteArray("shop"));
        for (qsizetype size = 0; size < 60; ++size)
            QCOMPARE(databaseInDump(whole.left(size)), std::nullopt);
        QByteArray other = whole;
        other[0x36] = '\x7f'; // how long the name is, by its highest byte but one
        QCOMPARE(databaseInDump(other), std::nullopt);
        other = whole;
        other[8] = '\x09'; // bytes of a number
        QCOMPARE(databaseInDump(other), std::nullopt);
    }

    void readsTheNameInADumpOfWideNumbers()
    {
        const QByteArray zero(9, '\0');
        const QByteArray beginning = QByteArray::fromHex("5047444d50010e00080801") + zero.repeated(8);
        const QByteArray four = QByteArray::fromHex("000400000000000000");
        QCOMPARE(databaseInDump(beginning + four + "shop"), QByteArray("shop"));
        // The least and the greatest number that there is, which has no counterpart of the other sign.
        QCOMPARE(databaseInDump(beginning + QByteArray::fromHex("010000000000000080") + "shop"), std::nullopt);
        QCOMPARE(databaseInDump(beginning + QByteArray::fromHex("00ffffffffffffff7f") + "shop"), std::nullopt);
        // What 32 bits would take for four.
        QCOMPARE(databaseInDump(beginning + QByteArray::fromHex("000400000001000000") + "shop"), std::nullopt);
    }

    // What a proof counts.

    void countsTheRowsOfADump_data()
    {
        QTest::addColumn<qsizetype>("piece");
        for (const qsizetype piece : {1, 7, 100'000})
            QTest::addRow("%d bytes at a time", static_cast<int>(piece)) << piece;
    }

    void countsTheRowsOfADump()
    {
        QFETCH(qsizetype, piece);
        QProcess restore;
        restore.start(u"pg_restore"_s, {u"--data-only"_s, u"--file=-"_s, kDump});
        QVERIFY(restore.waitForFinished());
        const QByteArray text = restore.readAllStandardOutput();
        CopyCounter counter;
        for (qsizetype at = 0; at < text.size(); at += piece)
            counter.take(text.mid(at, piece));
        QVERIFY(!counter.isTooMuch());
        QCOMPARE(counter.rows(), (QMap<QByteArray, qint64>{{"public.\"odd\nname;\"", 2}, {"public.orders", 40}}));
    }

    void countsNothingThatLooksLikeRows()
    {
        CopyCounter counter;
        counter.take("-- COPY a.a (x) FROM stdin;\nSELECT setval('COPY a.b (x) FROM stdin;\n', 1);\n"
                     "\\restrict x\nSELECT \"\nCOPY a.c (x) FROM stdin;\";\n"
                     "COPY a.d (x) FROM stdin;\n\\.\n\nCOPY a.e (x) FROM stdin;\n\n\\\\.\n\\.x\n\\.\n");
        QVERIFY(!counter.isTooMuch());
        QCOMPARE(counter.rows(), (QMap<QByteArray, qint64>{{"a.d", 0}, {"a.e", 3}}));
        counter.take("COPY a.f(x) FROM stdin;\nx\n\\.\n");
        QVERIFY(counter.isTooMuch());
    }

    void takesNamesAsTheyAreWritten_data()
    {
        QTest::addColumn<QByteArray>("statement");
        QTest::addColumn<QByteArray>("table");
        QTest::newRow("plain") << QByteArray("COPY public.t (a) FROM stdin") << QByteArray("public.t");
        QTest::newRow("quoted") << QByteArray("COPY \"a b\".\"c\"\"d.\" (a) FROM stdin")
                                << QByteArray("\"a b\".\"c\"\"d.\"");
        QTest::newRow("letters of others")
            << QByteArray("COPY public.\xc3\xa4 (a) FROM stdin") << QByteArray("public.\xc3\xa4");
        QTest::newRow("to a program") << QByteArray("COPY (SELECT 1) TO PROGRAM 'x' -- FROM stdin") << QByteArray();
        QTest::newRow("no schema") << QByteArray("COPY t (a) FROM stdin") << QByteArray();
        QTest::newRow("function") << QByteArray("COPY public.t() (a) FROM stdin") << QByteArray();
        QTest::newRow("never closed") << QByteArray("COPY public.\"t (a) FROM stdin") << QByteArray();
        QTest::newRow("another") << QByteArray("SELECT 1 FROM stdin") << QByteArray();
    }

    void takesNamesAsTheyAreWritten()
    {
        QFETCH(QByteArray, statement);
        QTEST(copiedTable(statement), "table");
    }

    void judgesErrorsOfARestore()
    {
        const Proof denied =
            judgeErrors("pg_restore: error: could not execute query: ERROR:  permission denied to create "
                        "extension \"postgis\"\nHINT:  x\npg_restore: error: could not execute query: "
                        "ERROR:  type \"geometry\" does not exist\n");
        QCOMPARE(denied.fault, QString());
        QCOMPARE(denied.note,
                 u"only a superuser can restore all of it: permission denied to create extension \"postgis\"; then: "
                 "type \"geometry\" does not exist"_s);
        const Proof broken =
            judgeErrors("pg_restore: error: could not execute query: ERROR:  relation \"x\" does not exist\n"
                        "Command was: permission denied\n");
        QCOMPARE(broken.fault, u"cannot be restored: relation \"x\" does not exist"_s);
        QCOMPARE(broken.note, QString());
        QCOMPARE(
            judgeErrors("pg_restore: error: connection to server on socket failed: FATAL:  Peer authentication failed "
                        "for user \"corv_verify\"\n")
                .note,
            u"only a superuser can restore all of it: Peer authentication failed for user \"corv_verify\""_s);
        QCOMPARE(judgeErrors("pg_restore: error: input file is too short\n").fault,
                 u"cannot be restored: pg_restore: error: input file is too short"_s);
    }

    void missesRows()
    {
        const QMap<QByteArray, qint64> dumped = {{"a.a", 3}, {"a.b", 0}};
        QCOMPARE(missingRows(dumped, {3, 0}), QString());
        QCOMPARE(missingRows(dumped, {4, 1}), QString());
        QCOMPARE(missingRows(dumped, {2, 0}), u"has 3 rows of the table a.a, of which 2 were restored"_s);
        QCOMPARE(missingRows(dumped, {3}), u"has 0 rows of the table a.b, of which 0 were restored"_s);
    }

    // What is kept.

    void keepsWhatWasFoundOut()
    {
        const Verdict verdict = {u"2026-01-05_031500"_s,
                                 17,
                                 {{u"config.tar.gz"_s, 5, 17, {}, 0, 0, 0, {}},
                                  {u"accounts/a-db.dump"_s, 6, 17, u"is damaged"_s, 18, 2, 40, u"x"_s}}};
        const QString folder = m_folder.path();
        QVERIFY(keepVerdict(folder, verdict));
        QCOMPARE(QFile::permissions(verdictPath(folder, verdict.backup)) & ~(QFile::ReadUser | QFile::WriteUser),
                 QFile::ReadOwner | QFile::WriteOwner);
        const std::optional<Verdict> kept = readVerdict(folder, verdict.backup);
        QVERIFY(kept);
        QCOMPARE(objectOf(*kept), objectOf(verdict));
        QCOMPARE(faultsIn(*kept), QStringList({u"accounts/a-db.dump is damaged"_s}));
        QVERIFY(!readVerdict(folder, u"2026-01-05_031501"_s));
        QVERIFY(!readVerdict(folder, u"../x"_s));
        // The verdict on another backup, under this one's name.
        QVERIFY(QFile::copy(verdictPath(folder, verdict.backup), verdictPath(folder, u"2026-01-06_031500"_s)));
        QVERIFY(!readVerdict(folder, u"2026-01-06_031500"_s));

        written(u"other.verified.json"_s, "x");
        QVERIFY(QDir(folder).mkdir(u"2026-01-06_031500"_s));
        clearVerdicts(folder);
        QVERIFY(!QFile::exists(verdictPath(folder, verdict.backup)));
        QVERIFY(QFile::exists(verdictPath(folder, u"2026-01-06_031500"_s)));
        QVERIFY(QFile::exists(m_folder.filePath(u"other.verified.json"_s)));
    }

    void keepsAProofUntilItsFileIsNotWhole()
    {
        Verdict verdict = {
            u"b"_s, 1, {{u"a"_s, 1, 1, {}, 5, 2, 40, {}}, {u"other"_s, 1, 1, u"is damaged"_s, 0, 0, 0, {}}}};
        merge({{u"a"_s, 1, 9, {}, 0, 0, 0, {}}, {u"other"_s, 1, 9, {}, 0, 0, 0, {}}, {u"new"_s, 1, 9, {}, 0, 0, 0, {}}},
              &verdict);
        QCOMPARE(verdict.files.size(), 3);
        QCOMPARE(verdict.files[0].checked, 9);
        QCOMPARE(verdict.files[0].proved, 5);
        QCOMPARE(verdict.files[0].rows, 40);
        QCOMPARE(faultsIn(verdict), QStringList());
        merge({{u"a"_s, 1, 10, u"is damaged"_s, 0, 0, 0, {}}}, &verdict);
        QCOMPARE(verdict.files[0].proved, 0);
        QCOMPARE(faultsIn(verdict), QStringList({u"a is damaged"_s}));
    }

    void takesTurns()
    {
        QList<Holding> dumps;
        for (int i = 0; i < 40; ++i)
            dumps.append({Holding::Kind::Database, u"accounts/site%1-db.dump"_s.arg(i), {}, -1});
        QList<qsizetype> sizes;
        for (const Holding &dump : dumps) {
            int turns = 0;
            for (qint64 week = 2'900; week < 2'904; ++week)
                turns += isDue(dump, dumps.size(), week) ? 1 : 0;
            QCOMPARE(turns, 1);
        }
        // All of a few.
        QVERIFY(
            std::all_of(dumps.cbegin(), dumps.cbegin() + 9, [](const Holding &dump) { return isDue(dump, 9, 2'900); }));
    }

    void knowsWhatABackupHasToHold()
    {
        const QJsonObject manifest = {
            {u"panelBytes"_s, 7},
            {u"accounts"_s, QJsonArray{QJsonObject{{u"username"_s, u"shop"_s}, {u"homeBytes"_s, 5}},
                                       QJsonObject{{u"username"_s, u"../../etc"_s}}}}};
        QStringList found;
        for (const Holding &holding : holdingsIn(manifest))
            found.append(holding.file + u' ' + QString::number(holding.bytes));
        QCOMPARE(found, QStringList({u"panel.dump 7"_s, u"config.tar.gz -1"_s, u"accounts/shop-home.tar.gz 5"_s,
                                     u"accounts/shop-db.dump -1"_s}));
    }

    void shortensComplaints()
    {
        QCOMPARE(complaintIn(QString()), u"the program that reads it failed without a word"_s);
        QCOMPARE(complaintIn(u"tar: a\n\x1b[2J\ntar: Child returned status 1"_s), u"tar: a; \x1b[2J"_s);
        QCOMPARE(complaintIn(u"tar: Child died with signal 9\ntar: Error is not recoverable: exiting now"_s),
                 u"tar: Child died with signal 9"_s);
        QCOMPARE(complaintIn(u"x"_s.repeated(500)).size(), 200);
    }
};

QTEST_GUILESS_MAIN(TestVerify)
#include "test_verify.moc"
