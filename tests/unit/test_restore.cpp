#include "ctl/restore/Apply.h"
#include "ctl/restore/Aside.h"
#include "ctl/restore/Collect.h"
#include "ctl/restore/Kept.h"
#include "ctl/restore/Panel.h"
#include "ctl/restore/Restore.h"
#include "ctl/restore/State.h"
#include "ctl/restore/Tables.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;

namespace {

const auto kScram = u"SCRAM-SHA-256$4096:lD89vA2GQkNgqwtP7vv7rA==$8wn3xyob=:UdhAKBPqlbPO5zWSGlHX+WxzjqhM="_s;

AccountState wholeState()
{
    AccountState state;
    state.username = u"shop"_s;
    state.domain = u"shop.example"_s;
    state.taken = 1'795'338'175;
    state.uid = 1000;
    state.shell = u"/bin/bash"_s;
    state.isSuspended = true;
    state.lingers = true;
    state.role = kScram;
    state.shadow = u"!$y$j9T$abc$def"_s;
    state.limitMb = 500;
    state.database = KeptDatabase{u"UTF8"_s, u"C.UTF-8"_s, u"de_DE.UTF-8"_s};
    state.settings = {{KeptSetting::Scope::Database, u"search_path"_s, u"app, \"$user\""_s},
                      {KeptSetting::Scope::Role, u"work_mem"_s, u"8MB"_s},
                      {KeptSetting::Scope::RoleInDatabase, u"my.own"_s, u"a=b'\n"_s}};
    state.crontab = "17 3 * * * /bin/true \xff\n";
    state.jobs = {{1'795'339'980, 'b', "echo '\n"}};
    state.php = QStringList{u"8.2"_s};
    return state;
}

// A line with one of its members replaced by another text.
QByteArray changed(const QByteArray &member, const QByteArray &value)
{
    QByteArray line = stateLine(wholeState());
    const qsizetype from = line.indexOf('"' + member + "\":") + member.size() + 3;
    qsizetype to = from;
    int depth = 0;
    bool isText = false;
    for (; isText || depth > 0 || (line[to] != ',' && line[to] != '}'); ++to) {
        if (line[to] == '"')
            isText = !isText;
        if (!isText && (line[to] == '[' || line[to] == '{'))
            ++depth;
        if (!isText && (line[to] == ']' || line[to] == '}'))
            --depth;
    }
    return line.replace(from, to - from, value);
}

} // namespace

class TestRestore : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_folder;

    QString fileWith(const QByteArray &text, mode_t mode = 0600)
    {
        const QString path = m_folder.filePath(u"accounts.state"_s);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
            qFatal("cannot write %s", qPrintable(path));
        file.close();
        ::chmod(QFile::encodeName(path).constData(), mode);
        return path;
    }

private Q_SLOTS:
    void whatIsWrittenIsReadAgain()
    {
        const QByteArray line = stateLine(wholeState());
        QCOMPARE(line.count('\n'), 1);
        QVERIFY(parseStateLine(line) == wholeState());
        AccountState bare;
        bare.username = u"shop"_s;
        QVERIFY(parseStateLine(stateLine(bare)) == bare);
        bare.role = QString();
        QVERIFY(parseStateLine(stateLine(bare))->role == QString());
    }

    void aLineThatIsNoneIsPassedOver_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("empty") << QByteArray("\n");
        QTest::newRow("no object") << QByteArray("[1]\n");
        QTest::newRow("cut off") << stateLine(wholeState()).left(200);
        QTest::newRow("no name") << QByteArray("{}\n");
        QTest::newRow("name of a system user") << changed("username", "\"root\"");
        QTest::newRow("name with a path") << changed("username", "\"../x\"");
        QTest::newRow("name with a line feed") << changed("username", "\"shop\\n\"");
        QTest::newRow("number as name") << changed("username", "7");
        QTest::newRow("list as hash") << changed("role", "[]");
        QTest::newRow("NUL in a hash") << changed("shadow", "\"a\\u0000b\"");
        QTest::newRow("long hash") << changed("role", '"' + QByteArray(1025, 'x') + '"');
        QTest::newRow("negative number") << changed("uid", "-1");
        QTest::newRow("fraction") << changed("limitMb", "2.5");
        QTest::newRow("text as limit") << changed("limitMb", "\"1\"");
        QTest::newRow("text as flag") << changed("suspended", "\"true\"");
        QTest::newRow("crontab that is no Base64") << changed("crontab", "\"%%%\"");
        QTest::newRow("large crontab") << changed("crontab", '"' + QByteArray(1'048'577, 'x').toBase64() + '"');
        QTest::newRow("settings as text") << changed("settings", "\"x\"");
        QTest::newRow("setting without a name") << changed("settings", "[{\"scope\":\"role\",\"value\":\"1\"}]");
        QTest::newRow("setting with a quote")
            << changed("settings", "[{\"scope\":\"role\",\"name\":\"a\\\"b\",\"value\":\"1\"}]");
        QTest::newRow("setting of nobody")
            << changed("settings", "[{\"scope\":\"all\",\"name\":\"a\",\"value\":\"1\"}]");
        QTest::newRow("many jobs") << changed("jobs", '[' + QByteArray("{},").repeated(100) + "{}]");
        QTest::newRow("job of no queue") << changed("jobs", "[{\"time\":1,\"queue\":\"-l\",\"script\":\"\"}]");
        QTest::newRow("database as list") << changed("database", "[]");
    }

    void aLineThatIsNoneIsPassedOver()
    {
        QFETCH(QByteArray, line);
        QVERIFY(!parseStateLine(line));
        int bad = 0;
        QString problem;
        const QString path = fileWith(stateLine(wholeState()) + (line.endsWith('\n') ? line : line + '\n'));
        QCOMPARE(readStates(path, &bad, &problem).size(), 1);
        QCOMPARE(bad, 1);
        QCOMPARE(problem, QString());
    }

    void aMemberThatIsNotKnownIsPassedOver()
    {
        const QByteArray line = stateLine(wholeState());
        QVERIFY(parseStateLine("{\"later\":[1]," + line.sliced(1)) == wholeState());
    }

    void aFileThatOthersMayWriteToIsNotRead()
    {
        int bad = 0;
        QString problem;
        const QString path = fileWith(stateLine(wholeState()), 0620);
        QVERIFY(readStates(path, &bad, &problem).isEmpty());
        QCOMPARE(problem, path + u" could have been written by others than root"_s);
        QVERIFY(readStates(m_folder.path(), &bad, &problem).isEmpty());
        QCOMPARE(problem, m_folder.path() + u" is no file"_s);
        const QString link = m_folder.filePath(u"link"_s);
        (void)::chmod(QFile::encodeName(path).constData(), 0600);
        QVERIFY(QFile::link(path, link));
        QVERIFY(readStates(link, &bad, &problem).isEmpty());
        QCOMPARE(problem, link + u" cannot be read"_s);
        // A pipe that nobody writes to holds nobody up.
        const QString pipe = m_folder.filePath(u"pipe"_s);
        QCOMPARE(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
        QVERIFY(readStates(pipe, &bad, &problem).isEmpty());
        QCOMPARE(problem, pipe + u" is no file"_s);
        QVERIFY(boundedText(pipe, 100).isEmpty());
    }

    void aLineWithoutAnEndIsBounded()
    {
        int bad = 0;
        QString problem;
        const QByteArray endless(kLongestStateLine + 10, ' ');
        QCOMPARE(readStates(fileWith(endless + stateLine(wholeState())), &bad, &problem).size(), 1);
        QCOMPARE(bad, 1);
    }

    void whatADeletionHasTakenStays()
    {
        const AccountState earlier = wholeState();
        AccountState fresh = earlier;
        fresh.role.reset();
        fresh.database.reset();
        fresh.settings.clear();
        fresh.limitMb = 0;
        fresh.crontab.clear();
        fresh.jobs.clear();
        fresh.php.clear();
        fresh.lingers = false;
        QVERIFY(completed(fresh, earlier, true) == earlier);
        // Of an account that nobody deletes only what PostgreSQL did not tell.
        const AccountState whole = completed(fresh, earlier, false);
        QCOMPARE(whole.role.value_or(QString()), kScram);
        QCOMPARE(whole.settings, earlier.settings);
        QCOMPARE(whole.limitMb.value_or(-1), 0);
        QVERIFY(whole.crontab.isEmpty() && whole.jobs.isEmpty());
    }

    void theLastStateOfAnAccountThatIsGoneIsKeptForAWhile()
    {
        const AccountState gone = wholeState();
        QCOMPARE(merged({gone}, {}, {}, gone.taken + 15'552'000), QList<AccountState>{gone});
        QCOMPARE(merged({gone}, {}, {}, gone.taken + 15'552'000 + 1), QList<AccountState>());
        // Another account of that name has nothing of it.
        AccountState other;
        other.username = gone.username;
        other.uid = gone.uid + 1;
        QCOMPARE(merged({gone}, {other}, {u"shop"_s}, gone.taken), QList<AccountState>{other});
    }

    void aStateBelongsToTheDeletionThatFollowsIt()
    {
        const QString stamp = u"20261122-090256"_s;
        const qint64 began = QDateTime::fromString(stamp, u"yyyyMMdd-HHmmss"_s).toSecsSinceEpoch();
        const auto found = [&](qint64 taken) {
            AccountState state = wholeState();
            state.taken = taken;
            return stateAt({state}, u"shop"_s, stamp, began + 10).has_value();
        };
        QVERIFY(found(began));
        QVERIFY(found(began - 172'800));
        QVERIFY(!found(began - 172'800 - 1));
        QVERIFY(found(began + 70));
        QVERIFY(!found(began + 71));
        QVERIFY(!stateAt({wholeState()}, u"blog"_s, stamp, began + 10));
    }

    void aCrontabIsKeptWithoutItsNotice_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("bare");
        const QByteArray job = "17 3 * * * /bin/true\n";
        const QByteArray notice = "# DO NOT EDIT THIS FILE - edit the master and reinstall.\n# (- installed on Sun)\n"
                                  "# (Cron version -- $Id$)\n";
        QTest::newRow("none") << job << job;
        QTest::newRow("three lines") << notice + job << job;
        QTest::newRow("twice") << notice + notice + job << notice + job;
        QTest::newRow("own remark behind") << notice + "# (mine)\n" + job << "# (mine)\n" + job;
        QTest::newRow("nothing else") << notice << QByteArray();
        QTest::newRow("no end of a line") << QByteArray("# DO NOT EDIT THIS FILE") << QByteArray();
    }

    void aCrontabIsKeptWithoutItsNotice()
    {
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, bare);
        QCOMPARE(bareCrontab(text), bare);
    }

    void aJobIsReadFromItsFile()
    {
        const auto job = parseJob("a0000101c92d0a", "#!/bin/sh\n# atrun uid=1000 gid=1000\n# mail shop 0\numask 22\n");
        QVERIFY(job.has_value());
        QCOMPARE(job->queue, 'a');
        QCOMPARE(job->time, qint64(0x01c92d0a) * 60);
        QCOMPARE(job->script, QByteArray("umask 22\n"));
        QVERIFY(!parseJob("=0000101c92d0a", "#!/bin/sh\n"));
        QVERIFY(!parseJob("a0000101c92d0", "#!/bin/sh\n"));
        QVERIFY(!parseJob("a0000101c92d0a", "echo"));
        QVERIFY(!parseJob(".SEQ", ""));
    }

    void aJobIsKnownByItsTimeAndItsScript()
    {
        const KeptJob kept = {60, 'a', "umask 22\ncd /home/shop\necho one\n"};
        QVERIFY(isSameJob(kept, {60, 'a', "umask 77\ncd /root\n" + kept.script}));
        QVERIFY(!isSameJob(kept, {60, 'a', "umask 77\ncd /root\numask 22\ncd /home/shop\necho two\n"}));
        QVERIFY(!isSameJob(kept, {120, 'a', kept.script}));
        QVERIFY(!isSameJob(kept, {60, 'b', kept.script}));
    }

    void whatWasChangedSinceIsKept()
    {
        QTemporaryDir home;
        const QByteArray path = QFile::encodeName(home.path());
        const QList<QByteArray> names = {"public_html", "missing", ".profile"};
        QVERIFY(QDir(home.path()).mkpath(u"public_html/deep"_s) && QDir(home.path()).mkpath(u"tmp"_s));
        for (const QString &name : {u"public_html/deep/page"_s, u".profile"_s, u"tmp/session"_s}) {
            QFile file(home.filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write("x") == 1);
        }
        struct stat page = {};
        QVERIFY(::stat(QFile::encodeName(home.filePath(u"public_html/deep/page"_s)).constData(), &page) == 0);
        const QString kept = home.filePath(u"replaced-1"_s);

        QCOMPARE(setAsideHere(path, names, "replaced-1", page.st_ctime + 1), QByteArray());
        QVERIFY(!QFile::exists(kept) && QFile::exists(home.filePath(u".profile"_s)));
        QCOMPARE(setAsideHere(path, names, "replaced-1", page.st_ctime - 1), QByteArray("kept"));
        QVERIFY(QFile::exists(kept + u"/public_html/deep/page"_s) && QFile::exists(kept + u"/.profile"_s));
        QVERIFY(!QFile::exists(home.filePath(u"public_html"_s)) && QFile::exists(home.filePath(u"tmp/session"_s)));
        // Nothing is left to be kept, and what was kept is not kept again.
        QCOMPARE(setAsideHere(path, names, "replaced-2", 0), QByteArray());
        QCOMPARE(setAsideHere(path, {"tmp"}, "replaced-1", 0), QByteArray(std::strerror(EEXIST)));
        QCOMPARE(setAsideHere(path + "/none", names, "replaced-1", 0), QByteArray(std::strerror(ENOENT)));
    }

    void whatRunsByItselfIsNamed()
    {
        QCOMPARE(jobsText(wholeState()), u"crontab, 1 job(s) of at, services without a login"_s);
        QCOMPARE(jobsText(AccountState()), QString());
    }

    void onlyWhatHasTheFormOfAHashIsPutBack()
    {
        QVERIFY(isRoleHash(kScram) && isRoleHash(u"md5"_s + QString(32, u'0')));
        for (const QString &text :
             {u""_s, u"secret"_s, kScram + u"\n"_s, kScram + u"'"_s, u"md5"_s + QString(31, u'0')})
            QVERIFY(!isRoleHash(text));
        QVERIFY(isShadowHash(u"$y$j9T$5XvhJkAMUE7EuwfcOV7hT.$mo4il"_s));
        for (const QString &text : {u""_s, u"!"_s, u"*"_s, u"!$y$j9T$5XvhJkAMUE"_s, u"$y$j9T$a:b$cdefghijk"_s,
                                    u"$y$j9T$abcdefghijk\n"_s, u"short"_s})
            QVERIFY(!isShadowHash(text));
        QVERIFY(isShellPath(u"/usr/sbin/nologin"_s));
        for (const QString &text : {u""_s, u"bash"_s, u"/bin/../bin/sh"_s, u"/bin/ba sh"_s, u"/bin/sh\n"_s, u"/"_s})
            QVERIFY(!isShellPath(text));
    }

    void namesAreSplitAsPostgresKeepsThem()
    {
        QStringList names;
        QVERIFY(splitNames(u"app, \"$user\",public , \"a\"\"b, c\""_s, &names));
        QCOMPARE(names, QStringList({u"app"_s, u"$user"_s, u"public"_s, u"a\"b, c"_s}));
        QVERIFY(splitNames(u" "_s, &names));
        QVERIFY(names.isEmpty());
        for (const QString &text : {u"a,"_s, u",a"_s, u"\"a"_s, u"a b"_s})
            QVERIFY(!splitNames(text, &names));
    }

    void statementsHoldTextsAsTexts()
    {
        const auto last = [](const QByteArray &script) { return script.trimmed().split('\n').constLast(); };
        QCOMPARE(last(passwordScript(u"shop"_s, kScram)), "ALTER ROLE \"shop\" PASSWORD '" + kScram.toLatin1() + "';");
        QCOMPARE(last(passwordScript(u"shop"_s, {})), QByteArray("ALTER ROLE \"shop\" PASSWORD NULL;"));
        QCOMPARE(last(settingScript(u"shop"_s, {KeptSetting::Scope::Database, u"search_path"_s, u"a, \"B c\""_s},
                                    SaidBy::Us)),
                 QByteArray("ALTER DATABASE \"shop\" SET \"search_path\" = 'a', 'B c';"));
        QCOMPARE(
            last(settingScript(u"shop"_s, {KeptSetting::Scope::RoleInDatabase, u"a.b"_s, u"x'; DROP"_s}, SaidBy::Us)),
            QByteArray("ALTER ROLE \"shop\" IN DATABASE \"shop\" SET \"a.b\" = 'x''; DROP';"));
        QCOMPARE(last(settingScript(u"shop"_s, {KeptSetting::Scope::Role, u"work_mem"_s, u"8MB"_s}, SaidBy::Us)),
                 QByteArray("ALTER ROLE \"shop\" SET \"work_mem\" = '8MB';"));
    }

    void jobsWhoseTimeIsPastAreTold()
    {
        constexpr qint64 now = 1'000'000;
        AccountState state;
        QCOMPARE(lateJobs(state, now), QStringList());
        state.jobs = {{now - 1, 'a', "x"}, {now + 119, 'a', "x"}, {now + 120, 'a', "x"}};
        QCOMPARE(lateJobs(state, now), QStringList{u"2 job(s) of at whose time is past"_s});
        state.jobs = {{now + 120, 'a', "x"}};
        QCOMPARE(lateJobs(state, now), QStringList());
    }

    // PostgreSQL takes what is stored for what a superuser wants, so that a path of a program would be loaded.
    void settingsThatAnotherServerTellsOfAreSetWithTheAccountsRightsAlone()
    {
        const KeptSetting program = {KeptSetting::Scope::Role, u"session_preload_libraries"_s, u"/tmp/x.so"_s};
        const QByteArray ours = settingScript(u"shop"_s, program, SaidBy::Us);
        const QByteArray statement = "ALTER ROLE \"shop\" SET \"session_preload_libraries\" = '/tmp/x.so';\n";
        QVERIFY(ours.endsWith(statement));
        const QByteArray quietly = ours.chopped(statement.size());
        QVERIFY(!quietly.contains("ROLE"));
        QCOMPARE(settingScript(u"shop"_s, program, SaidBy::AnotherServer),
                 quietly + "SET ROLE \"shop\";\n" + statement + "RESET ROLE;\n");
    }

    void rolesAreAddedToTheirAccounts()
    {
        AccountState shop;
        shop.username = u"shop"_s;
        QList<AccountState> states = {shop};
        const QByteArray line = "{\"name\":\"shop\",\"role\":\"md5x\",\"database\":{\"encoding\":\"UTF8\",\"collate\":"
                                "\"C\",\"ctype\":\"C\"},\"settings\":["
                                "{\"scope\":\"database\",\"text\":\"a=b=c\"},{\"scope\":\"role\",\"text\":\"work_mem="
                                "8MB\"},{\"scope\":\"role\",\"text\":\"a b=1\"}]}";
        QVERIFY(addRole(line, &states));
        QCOMPARE(states[0].role.value_or(QString()), u"md5x"_s);
        QVERIFY(states[0].database == (KeptDatabase{u"UTF8"_s, u"C"_s, u"C"_s}));
        // What could not be read again is left out, not the account.
        QCOMPARE(states[0].settings, (QList<KeptSetting>{{KeptSetting::Scope::Database, u"a"_s, u"b=c"_s},
                                                         {KeptSetting::Scope::Role, u"work_mem"_s, u"8MB"_s}}));
        QVERIFY(!addRole("{\"name\":\"blog\",\"role\":\"\"}", &states));
        QVERIFY(!addRole("", &states));
    }

    void anAccountsLineCanBeReadHoweverManySettingsItMakesUp()
    {
        QByteArray entries;
        for (int i = 0; i < 378; ++i)
            entries += QByteArray(i > 0 ? "," : "") + "{\"scope\":\"role\",\"text\":\"a.b" + QByteArray::number(i) +
                       "=" + QByteArray(8000, '"').replace('"', "\\\"") + "\"}";
        AccountState shop;
        shop.username = u"shop"_s;
        QList<AccountState> states = {shop};
        QVERIFY(addRole("{\"name\":\"shop\",\"role\":\"\",\"settings\":[" + entries + "]}", &states));
        QVERIFY(!states[0].settings.isEmpty() && states[0].settings.size() < 378);
        QCOMPARE(states[0].leftOut, QStringList{u"settings"_s});
        const std::optional<AccountState> read = parseStateLine(stateLine(states[0]));
        QVERIFY(read && *read == states[0]);
    }

    void aBackupIsToldFromThoseOfEarlierRuns()
    {
        const qint64 began = QDateTime(QDate(2026, 1, 5), QTime(3, 15)).toSecsSinceEpoch();
        QVERIFY(isOfThisRun(u"2026-01-05_031500"_s, began));
        QVERIFY(isOfThisRun(u"2026-01-05_031501"_s, began));
        QVERIFY(!isOfThisRun(u"2026-01-04_031500"_s, began));
        QVERIFY(!isOfThisRun(u"2026-01-05_031500"_s, 0)); // nothing tells when the run began
        QVERIFY(!isOfThisRun(u"x"_s, began));
    }

    void tablesAreCountedInAList()
    {
        QCOMPARE(countTables(";\n; Archive created\n;\n215; 1259 16385 TABLE public orders shop\n"
                             "3333; 0 16385 TABLE DATA public orders shop\n"
                             "3211; 0 0 TABLE ATTACH public orders_old shop\n216; 1259 1 TABLE app a b shop\n"
                             "9; 2615 1 SCHEMA - TABLE shop\n"),
                 2);
        QCOMPARE(countTables({}), 0);
    }

    void onlyThePanelsOwnFilesAreSettings()
    {
        QCOMPARE(settingsMembers({u"etc/corvane/"_s, u"etc/corvane/corvane.ini"_s, u"etc/corvane/../shadow"_s,
                                  u"etc/corvanex"_s, u"etc/shadow"_s, u"../etc/corvane/x"_s, u"/etc/corvane/x"_s,
                                  u"etc/apache2/sites-available/corv-shop.conf"_s,
                                  u"etc/fail2ban/jail.d/corvane.local"_s, u"etc/corvane/.."_s}),
                 QStringList({u"etc/corvane"_s, u"etc/corvane/corvane.ini"_s, u"etc/fail2ban/jail.d/corvane.local"_s}));
    }
};

QTEST_GUILESS_MAIN(TestRestore)
#include "test_restore.moc"
