#include "common/BackupFolders.h"
#include "ctl/doctor/Backup.h"
#include "ctl/doctor/Compressor.h"
#include "ctl/doctor/Database.h"
#include "ctl/doctor/Former.h"
#include "ctl/doctor/OpenFiles.h"
#include "ctl/doctor/Php.h"
#include "ctl/doctor/Report.h"
#include "ctl/doctor/Restores.h"
#include "ctl/doctor/System.h"
#include "mend_of.h"

#include <QDateTime>
#include <QJsonArray>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;

namespace {

// One line of text for each finding, so that a whole list is compared at once.
QStringList asText(const QList<Finding> &findings)
{
    QStringList lines;
    for (const Finding &finding : findings)
        lines.append(u"%1|%2|%3"_s.arg(finding.level == Level::Fault ? u"fault"_s : u"note"_s, finding.problem,
                                       mendOf(finding)));
    return lines;
}

// The problems alone.
QStringList problems(const QList<Finding> &findings)
{
    QStringList lines;
    for (const Finding &finding : findings)
        lines.append(finding.problem);
    return lines;
}

} // namespace

class TestDoctor : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void findsWhatThePoolsOfOnePhpShare_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<bool>("readsOurs");
        QTest::addColumn<QStringList>("wanted");
        const QByteArray good = "PHP Version => 8.2.36\nDirective => Local Value => Master Value\n"
                                "opcache.enable => On => On\nopcache.file_cache => no value => no value\n"
                                "opcache.restrict_api => /usr/share/x/ => /usr/share/x/\n"
                                "opcache.validate_permission => On => On\n";
        const QString given = u"fault|the cache of PHP 8.2 gives each account what the pages of all others hold|"_s;
        const QString listed =
            u"note|each account can list the scripts of all others in the cache of PHP 8.2, and empty it|"_s;
        const QString ours = u"/usr/libexec/corvane/php-settings"_s;
        const QString shown = u"grep -rn -F opcache.%1 /etc/corvane/php-fpm.ini /etc/php/8.2/fpm"_s;
        const auto but = [&good](const QByteArray &before, const QByteArray &after) {
            return QByteArray(good).replace(before, after);
        };

        QTest::newRow("well") << good << true << QStringList();
        QTest::newRow("well by the administrator's own settings") << good << false << QStringList();
        QTest::newRow("as PHP comes") << but("validate_permission => On => On", "validate_permission => Off => Off")
                                             .replace("/usr/share/x/", "no value")
                                      << false << QStringList{given + ours, listed + ours};
        QTest::newRow("undone elsewhere") << but("validate_permission => On => On", "validate_permission => On => Off")
                                          << true << QStringList{given + shown.arg(u"validate_permission"_s)};
        QTest::newRow("pages of accounts may list")
            << but("/usr/share/x/", "/home/") << true << QStringList{listed + shown.arg(u"restrict_api"_s)};
        QTest::newRow("cache in files")
            << but("file_cache => no value => no value", "file_cache => /tmp => /tmp") << true
            << QStringList{u"note|PHP 8.2 keeps compiled scripts in /tmp: an account that may write there can exchange "
                           "those of others|grep -rn -F opcache.file_cache /etc/php/8.2/fpm"_s};
        QTest::newRow("cache off") << QByteArray("opcache.enable => Off => Off\n") << false << QStringList();
        QTest::newRow("no cache") << QByteArray("PHP Version => 8.2.36\n") << false << QStringList();
        QTest::newRow("apcu") << good +
                                     "APCu Support => Enabled\napc.enable_cli => Off => Off\napc.enabled => On => On\n"
                              << true
                              << QStringList{
                                     u"fault|PHP 8.2 has the extension apcu, through which each account reads and "
                                     "changes what the others keep in it|phpdismod -v 8.2 -s fpm apcu && systemctl "
                                     "reload php8.2-fpm"_s};
        QTest::newRow("apcu off") << good + "apc.enabled => Off => Off\n" << true << QStringList();
    }
    void findsWhatThePoolsOfOnePhpShare()
    {
        QFETCH(QByteArray, output);
        QFETCH(bool, readsOurs);
        QFETCH(QStringList, wanted);
        QCOMPARE(asText(checkPhp({u"8.2"_s, parsePhpInfo(output), readsOurs})), wanted);
    }

    void findsAJailThatBelievesUsersProgramsNamedSshd_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<bool>("found");
        const QByteArray start = "Current match filter:\n";
        QTest::newRow("Debian 12") << start + "_SYSTEMD_UNIT=sshd.service + _COMM=sshd\n" << true;
        QTest::newRow("Debian 13") << start + "_SYSTEMD_UNIT=ssh.service + _COMM=sshd + _COMM=sshd-session\n" << true;
        QTest::newRow("its unit") << start + "_SYSTEMD_UNIT=ssh.service\n" << true;
        QTest::newRow("its unit and name") << start + "_SYSTEMD_UNIT=ssh.service _COMM=sshd\n" << true;
        QTest::newRow("root alone") << start + "_COMM=sshd _UID=0\n" << true;
        QTest::newRow("another user") << start + "_SYSTEMD_UNIT=ssh.service _UID=01\n" << true;
        QTest::newRow("one of two") << start + "_SYSTEMD_UNIT=ssh.service _UID=0 + _COMM=sshd\n" << true;
        QTest::newRow("root in its unit") << start + "_SYSTEMD_UNIT=ssh.service _UID=0\n" << false;
        QTest::newRow("with its name") << start + "_UID=0 _SYSTEMD_UNIT=ssh.service _COMM=sshd\n" << false;
        QTest::newRow("both units") << start + "_SYSTEMD_UNIT=ssh.service _UID=0 + _SYSTEMD_UNIT=sshd.service _UID=0\n"
                                    << false;
        QTest::newRow("a log file") << QByteArray("No journal match filter set\n") << false;
        QTest::newRow("no fail2ban") << QByteArray() << false;
    }
    void findsAJailThatBelievesUsersProgramsNamedSshd()
    {
        QFETCH(QByteArray, output);
        const QStringList wanted = {
            u"fault|fail2ban's jail for SSH believes users' programs named sshd too, so that every user can have "
            "addresses banned|[ -e /etc/fail2ban/jail.d/zz-sshd-journal.local ] && ! grep -q 'sshd].njournalmatch' "
            "/etc/fail2ban/jail.d/zz-sshd-journal.local || (echo '[sshd]'; echo 'journalmatch = "
            "_SYSTEMD_UNIT=ssh.service _UID=0') "
            ">/etc/fail2ban/jail.d/zz-sshd-journal.local && systemctl restart fail2ban"_s};
        QFETCH(bool, found);
        QCOMPARE(asText(checkSshdJail(output)), found ? wanted : QStringList());
    }

    void readsWhatPostgresHas()
    {
        const std::optional<Databases> found =
            parseDatabases(R"({"version" : 150014, "roles" : [{"name" : "bob", "login" : false, "plain" : true}], )"
                           R"("databases" : [{"name" : "a\nb", "owner" : "bob", "open" : true}]})"
                           "\n");
        QVERIFY(found);
        QCOMPARE(found->version, 150014);
        QCOMPARE(found->roles.size(), 1);
        QCOMPARE(found->roles[0].mayLogIn, false);
        QCOMPARE(found->roles[0].isPlain, true);
        QCOMPARE(found->databases[0].name, u"a\nb"_s);
        QCOMPARE(found->databases[0].isOpen, true);
        QVERIFY(!parseDatabases({}));
        QVERIFY(!parseDatabases("{}"));
        QVERIFY(!parseDatabases("psql: error: connection refused"));
    }

    void readsAVersionOfPostgres_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("version");
        QTest::newRow("Debian") << QByteArray("pg_dump (PostgreSQL) 15.14 (Debian 15.14-0+deb12u1)\n")
                                << u"pg_dump 15.14"_s;
        QTest::newRow("plain") << QByteArray("psql (PostgreSQL) 17.6") << u"psql 17.6"_s;
        QTest::newRow("before its release") << QByteArray("psql (PostgreSQL) 18beta1\n") << u"psql 18.0"_s;
        QTest::newRow("none") << QByteArray("Error: no client\n") << QString();
        QTest::newRow("too large") << QByteArray("psql (PostgreSQL) 99999999999.1") << QString();
    }
    void readsAVersionOfPostgres()
    {
        QFETCH(QByteArray, text);
        const std::optional<PostgresVersion> found = parsePostgresVersion(text);
        QTEST(found ? u"%1 %2.%3"_s.arg(found->program).arg(found->major).arg(found->minor) : QString(), "version");
    }

    void knowsWhichVersionsHaveHoles_data()
    {
        QTest::addColumn<int>("major");
        QTest::addColumn<int>("minor");
        QTest::addColumn<bool>("isSafe");
        for (const auto &[major, minor] : {std::pair(13, 22), {14, 19}, {15, 14}, {16, 10}, {17, 6}}) {
            QTest::addRow("%d.%d", major, minor) << major << minor << true;
            QTest::addRow("%d.%d", major, minor - 1) << major << minor - 1 << false;
        }
        QTest::newRow("18.0") << 18 << 0 << true;
        QTest::newRow("12.99") << 12 << 99 << false;
    }
    void knowsWhichVersionsHaveHoles()
    {
        QFETCH(int, major);
        QFETCH(int, minor);
        QTEST(checkPostgresVersions({{u"pg_dump"_s, major, minor}}).isEmpty(), "isSafe");
    }

    void saysHowToMendAVersion()
    {
        QCOMPARE(
            asText(checkPostgresVersions({{u"pg_dump"_s, 15, 13}, {u"psql"_s, 15, 14}})),
            QStringList(
                {u"fault|pg_dump is of PostgreSQL 15.13; before 15.14 a dump can carry commands of a tenant that its "
                 "restore runs as the superuser (CVE-2025-8714, CVE-2025-8715)|apt-get update && apt-get install "
                 "--only-upgrade postgresql-15 postgresql-client-15"_s}));
    }

    void findsAPanelDatabaseThatIsNotInOrder()
    {
        QCOMPARE(asText(checkPanelDatabase({150014, {}, {{u"corvane"_s, u"corv-web"_s, false}}})), QStringList());
        QCOMPARE(problems(checkPanelDatabase({150014, {}, {}})),
                 QStringList({u"the panel's database corvane is missing"_s}));
        QCOMPARE(problems(checkPanelDatabase({150014, {}, {{u"corvane"_s, u"postgres"_s, false}}})),
                 QStringList({u"the panel's database corvane belongs to postgres, not to corv-web"_s}));
    }

    void judgesTheAgentsUnit_data()
    {
        QTest::addColumn<QByteArray>("unit");
        QTest::addColumn<QString>("answer");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("well") << QByteArray(
                                     "LoadState=loaded\nActiveState=active\nSubState=running\nUnitFileState=enabled\n")
                              << QString() << QStringList();
        QTest::newRow("silent") << QByteArray("LoadState=loaded\nActiveState=active\nUnitFileState=enabled\n")
                                << u"no permission"_s
                                << QStringList({u"the agent runs but does not answer: no permission"_s});
        QTest::newRow("failed") << QByteArray("LoadState=loaded\nActiveState=failed\nUnitFileState=enabled\n")
                                << u"no"_s
                                << QStringList({u"the agent has failed; journalctl -u corv-agent says why"_s});
        QTest::newRow("not ready") << QByteArray("LoadState=loaded\nActiveState=activating\nUnitFileState=enabled\n")
                                   << u"no"_s << QStringList({u"the agent is not ready, its service is activating"_s});
        QTest::newRow("stopped and disabled")
            << QByteArray("LoadState=loaded\nActiveState=inactive\nUnitFileState=disabled\n") << u"no"_s
            << QStringList({u"the agent does not run"_s,
                            u"the agent will not come up with the server, its service is disabled"_s});
        QTest::newRow("not there") << QByteArray("LoadState=not-found\nActiveState=inactive\nUnitFileState=\n")
                                   << u"no"_s << QStringList({u"the agent is not installed as a service"_s});
    }
    void judgesTheAgentsUnit()
    {
        QFETCH(QByteArray, unit);
        QFETCH(QString, answer);
        QTEST(problems(checkAgent(parseProperties(unit), answer)), "expected");
    }

    void readsApachesModulesAndFiles()
    {
        QCOMPARE(parseModules("Loaded Modules:\n core_module (static)\n proxy_fcgi_module (shared)\n"),
                 QStringList({u"core"_s, u"proxy_fcgi"_s}));
        QCOMPARE(parseIncludes("Included configuration files:\n  (*) /etc/apache2/apache2.conf\n"
                               "    (146) /etc/apache2/conf-enabled/corv-logformat.conf\n"),
                 QStringList({u"/etc/apache2/apache2.conf"_s, u"/etc/apache2/conf-enabled/corv-logformat.conf"_s}));
    }

    void knowsALogFormat_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<bool>("expected");
        QTest::newRow("the package's") << QByteArray("# c\nLogFormat \"%h \\\"%r\\\" %v %D\" corv\n") << true;
        QTest::newRow("any case, no quotes") << QByteArray("\tlogformat %h  corv") << true;
        QTest::newRow("another") << QByteArray("LogFormat \"%h\" combined\n") << false;
        QTest::newRow("a comment") << QByteArray("#LogFormat \"%h\" corv\n") << false;
        QTest::newRow("its name within the format") << QByteArray("LogFormat \"corv\" x\n") << false;
    }
    void knowsALogFormat()
    {
        QFETCH(QByteArray, text);
        QTEST(definesLogFormat(text, u"corv"_s), "expected");
    }

    void findsWhatApacheLacks()
    {
        const QStringList all = {u"rewrite"_s, u"proxy"_s, u"proxy_fcgi"_s, u"corvane"_s};
        QCOMPARE(asText(checkApache(all, true)), QStringList());
        QCOMPARE(
            asText(checkApache({u"proxy"_s, u"corvane"_s}, true)),
            QStringList({u"fault|Apache lacks what the sites of accounts need: rewrite proxy_fcgi|a2enmod -q rewrite "
                         "proxy_fcgi && systemctl restart apache2"_s}));
        QCOMPARE(problems(checkApache(all, false)).size(), 1);
        QCOMPARE(
            asText(checkApache(all.first(3), true)),
            QStringList({u"fault|Apache lacks the module corvane, so an account's .htaccess reaches the files and the "
                         "PHP of all others|apt-get install -y libapache2-mod-corvane && a2enmod -q corvane && "
                         "systemctl restart apache2"_s}));
    }

    void readsHowManyFilesAProcessMayHave_data()
    {
        QTest::addColumn<QByteArray>("limits");
        QTest::addColumn<int>("most");
        const QByteArray head = "Limit                     Soft Limit           Hard Limit           Units     \n";
        QTest::newRow("one in force below what is allowed")
            << head + "Max open files            8192                 524288               files     \n"
            << 8192;
        QTest::newRow("no limit") << head +
                                         "Max open files            unlimited            unlimited            files\n"
                                  << 0;
        QTest::newRow("another limit") << head + "Max processes             8192                 8192  processes \n"
                                       << 0;
        QTest::newRow("nothing") << QByteArray() << 0;
    }
    void readsHowManyFilesAProcessMayHave()
    {
        QFETCH(QByteArray, limits);
        QTEST(int(parseMostFiles(limits)), "most");
    }

    void findsAnApacheThatComesNearItsFiles()
    {
        QCOMPARE(asText(checkApacheFiles({80, 100})), QStringList());
        QCOMPARE(asText(checkApacheFiles({81, 100})),
                 QStringList{u"note|Apache has 81 files open, most of them the sites' logs, and may have 100; a reload "
                             "with more ends it|echo \"APACHE_ULIMIT_MAX_FILES='ulimit -n 65536'\" "
                             ">>/etc/apache2/envvars && systemctl restart apache2"_s});
        // As Debian comes, and as it is after that.
        QCOMPARE(asText(checkApacheFiles({6553, 8192})), QStringList());
        QCOMPARE(problems(checkApacheFiles({6554, 8192})).size(), 1);
        QVERIFY(checkApacheFiles({65'000, 65'536}).value(0).mend.contains("ulimit -n 262144"_L1));
    }

    void judgesAptsPatience_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<int>("findings");
        QTest::newRow("the package's") << u"120"_s << 0;
        QTest::newRow("least") << u"1"_s << 0;
        QTest::newRow("most") << u"599"_s << 0;
        QTest::newRow("as long as the agent waits") << u"600"_s << 1;
        QTest::newRow("for ever") << u"-1"_s << 1;
        QTest::newRow("none") << u"0"_s << 1;
        QTest::newRow("not set") << QString() << 1;
        QTest::newRow("no number") << u"long"_s << 1;
    }
    void judgesAptsPatience()
    {
        QFETCH(QString, value);
        QTEST(static_cast<int>(checkLockTimeout(value).size()), "findings");
    }

    void judgesQuotas()
    {
        QuotaState state = {u"/"_s, u"ext4"_s, true, true, true, true, true, u"linux-modules-extra-6.1"_s};
        QCOMPARE(asText(checkQuota(state)), QStringList());
        state.enabled = false;
        QCOMPARE(asText(checkQuota(state)),
                 QStringList(
                     {u"fault|/etc/fstab asks for disk quotas on /, but they are off: no limit holds|quotaon -u /"_s}));
        state.hasPackage = false;
        QCOMPARE(
            asText(checkQuota(state)),
            QStringList(
                {u"fault|/etc/fstab asks for disk quotas on /, but the package quota is missing|apt-get install -y "
                 "quota && quotaon -u /"_s}));
        state.isInFstab = false;
        QCOMPARE(asText(checkQuota(state)),
                 QStringList({u"note|disk quotas are off: nothing keeps one account from filling the "
                              "disk|corvctl quota enable"_s}));
        state.hasModules = false;
        QCOMPARE(
            problems(checkQuota(state)),
            QStringList({u"disk quotas are off, and cannot be had: the running kernel has no quota_v2, and there is no "
                         "package linux-modules-extra-6.1"_s}));
        state.supported = false;
        QCOMPARE(asText(checkQuota(state)), QStringList());
    }

    void readsFstab()
    {
        const QByteArray fstab =
            "#UUID=1 / ext4 usrjquota=x 0 1\nUUID=1 /\text4 defaults,usrjquota=aquota.user,jqfmt=vfsv1 0 1\n"
            "UUID=2 /home ext4 defaults 0 1\n";
        QVERIFY(asksForQuotas(fstab, u"/"_s));
        QVERIFY(!asksForQuotas(fstab, u"/home"_s));
        QVERIFY(!asksForQuotas(fstab, u"/srv"_s));
    }

    void judgesSshd()
    {
        QCOMPARE(asText(checkSshd({true, true, {}, true})), QStringList());
        QCOMPARE(asText(checkSshd({false, false, {}, false})),
                 QStringList({u"fault|there is no SSH daemon|apt-get install -y openssh-server"_s}));
        QCOMPARE(
            asText(checkSshd({true, false, "Missing privilege separation directory: /run/sshd\n", false})),
            QStringList(
                {u"fault|sshd -T fails, so the firewall would keep port 22 open, whatever the daemon's ports are: "
                 "Missing privilege separation directory: /run/sshd|install -d -o root -g root -m 0755 /run/sshd"_s}));
    }

    void judgesFolders()
    {
        const Place place = {u"/var/lib/corvane/transfer"_s, u"corv-web"_s, u"corv-web"_s, 0700};
        const auto mend = u"install -d -o corv-web -g corv-web -m 0700 /var/lib/corvane/transfer"_s;
        QCOMPARE(asText(checkFolder(place, {true, true, false, u"corv-web"_s, u"corv-web"_s, 0700})), QStringList());
        QCOMPARE(asText(checkFolder(place, {})),
                 QStringList({u"fault|the folder /var/lib/corvane/transfer is missing|"_s + mend}));
        QCOMPARE(asText(checkFolder(place, {true, true, false, u"root"_s, u"corv-web"_s, 02777})),
                 QStringList(
                     {u"fault|the folder /var/lib/corvane/transfer is root:corv-web 2777 instead of corv-web:corv-web "
                      "0700|"_s +
                      mend}));
        QCOMPARE(asText(checkFolder(place, {true, false, false, u"corv-web"_s, u"corv-web"_s, 0777})),
                 QStringList({u"fault|/var/lib/corvane/transfer is no folder of its own, but a link or a file|mv "
                              "/var/lib/corvane/transfer /var/lib/corvane/transfer.moved && "_s +
                              mend}));
    }

    void judgesTheSocket()
    {
        const Place place = {u"/run/corvane/agent.sock"_s, u"root"_s, u"corv-web"_s, 0660};
        QCOMPARE(asText(checkSocket(place, {})), QStringList());
        QCOMPARE(asText(checkSocket(place, {true, false, true, u"root"_s, u"corv-web"_s, 0660})), QStringList());
        QCOMPARE(
            asText(checkSocket(place, {true, false, true, u"root"_s, u"corv-web"_s, 0666})),
            QStringList({u"fault|the agent's /run/corvane/agent.sock is root:corv-web 0666 instead of root:corv-web "
                         "0660|systemctl restart corv-agent"_s}));
        QCOMPARE(problems(checkSocket(place, {true, false, false, u"root"_s, u"corv-web"_s, 0660})),
                 QStringList({u"the agent's /run/corvane/agent.sock is no socket"_s}));
    }

    void judgesBackups_data()
    {
        QTest::addColumn<QJsonObject>("backup");
        QTest::addColumn<qint64>("free");
        QTest::addColumn<QStringList>("expected");
        const qint64 enough = 10'000'000'000;
        const QJsonObject well = {
            {u"name"_s, u"2026-01-05_031500"_s}, {u"bytes"_s, 2'000'000'000}, {u"errors"_s, QJsonArray()}};
        const auto with = [&well](const QString &key, const QJsonValue &value) {
            QJsonObject backup = well;
            backup.insert(key, value);
            return backup;
        };
        QTest::newRow("well") << well << enough << QStringList();
        QTest::newRow("old") << with(u"name"_s, u"2026-01-03_031500"_s) << enough
                             << QStringList(
                                    {u"fault|the last backup, 2026-01-03_031500, is 55 hours old|corvctl backup start "
                                     "--wait"_s});
        QTest::newRow("with an error")
            << with(u"errors"_s, QJsonArray{u"alice files: tar failed: tar: x: Cannot open"_s}) << enough
            << QStringList(
                   {u"fault|the last backup, 2026-01-05_031500: alice files: tar failed: tar: x: Cannot open|corvctl "
                    "backup start --wait"_s});
        QTest::newRow("with a file that was written to")
            << with(u"errors"_s, QJsonArray{u"alice files: tar failed: tar: alice/x: file changed as we read it"_s})
            << enough
            << QStringList(
                   {u"note|the last backup, 2026-01-05_031500: alice files: tar failed: tar: alice/x: file changed as "
                    "we read it|corvctl backup start --wait"_s});
        QJsonObject bare = well;
        bare.remove(u"errors"_s);
        QTest::newRow("without a manifest") << bare << enough
                                            << QStringList({u"fault|the last backup, 2026-01-05_031500, has no "
                                                            u"manifest that could be read|corvctl backup start "
                                                            "--wait"_s});
        QTest::newRow("no room for the next")
            << well << qint64(1'900'000'000)
            << QStringList(
                   {u"fault|only 1.8 GiB are free at /srv/b, and the next backup needs 1.9 GiB|df -h /srv/b"_s});
    }
    void judgesBackups()
    {
        QFETCH(QJsonObject, backup);
        QFETCH(qint64, free);
        const QJsonObject status = {
            {u"destination"_s, u"/srv/b"_s}, {u"freeBytes"_s, free}, {u"backups"_s, QJsonArray{backup}}};
        const qint64 now = corv::backup::timeOf(u"2026-01-05_110000"_s);
        QTEST(asText(checkBackups(status, now, true)), "expected");
    }

    void findsABackupOfATimeThatHasNotCome()
    {
        const auto named = [](const QString &name, const QJsonArray &errors) {
            return QJsonObject{{u"name"_s, name}, {u"errors"_s, errors}};
        };
        const QJsonObject status = {{u"destination"_s, u"/srv/b"_s},
                                    {u"freeBytes"_s, qint64(10'000'000'000)},
                                    {u"backups"_s, QJsonArray{named(u"2026-02-14_031500"_s, {}),
                                                              named(u"2026-01-05_031500"_s, {u"alice files: x"_s})}}};
        const qint64 now = corv::backup::timeOf(u"2026-01-05_110000"_s);
        // What it hides is told as well.
        QCOMPARE(asText(checkBackups(status, now, true)),
                 QStringList({u"fault|the backup 2026-02-14_031500 is of a time that has not come: the clock was "
                              "ahead; it hides those that follow|"
                              "mv -T /srv/b/2026-02-14_031500 /srv/b/ahead-2026-02-14_031500"_s,
                              u"fault|the last backup, 2026-01-05_031500: alice files: x|corvctl backup start "
                              "--wait"_s}));
        const QJsonObject setBack = {{u"destination"_s, u"/srv/b"_s},
                                     {u"freeBytes"_s, qint64(10'000'000'000)},
                                     {u"backups"_s, QJsonArray{named(u"2026-01-05_123000"_s, {})}}};
        QCOMPARE(asText(checkBackups(setBack, now, true)), QStringList());
    }

    void findsThatNoBackupIsMade()
    {
        const QJsonObject status = {{u"destination"_s, u"/srv/b"_s}, {u"freeBytes"_s, qint64(10'000'000'000)}};
        QCOMPARE(
            asText(checkBackups(status, 0, false)),
            QStringList(
                {u"fault|no nightly backup is planned: its timer is off|systemctl enable --now corv-backup.timer"_s,
                 u"fault|there is no backup yet|corvctl backup start --wait"_s}));
        QJsonObject running = status;
        running.insert(u"running"_s, true);
        QCOMPARE(asText(checkBackups(running, 0, true)), QStringList());
    }

    void knowsATimeByABackupsName()
    {
        QCOMPARE(corv::backup::timeOf(u"2026-01-05_031500"_s),
                 QDateTime(QDate(2026, 1, 5), QTime(3, 15)).toSecsSinceEpoch());
        QCOMPARE(corv::backup::timeOf(u"2026-13-05_031500"_s), 0);
        QCOMPARE(corv::backup::timeOf(u"x"_s), 0);
    }

    void judgesHomes()
    {
        const QHash<QString, qint64> sizes = {
            {u"alice"_s, 12'000'000'001}, {u"bob"_s, 12'000'000'000}, {u"carol"_s, 1}};
        const auto mend = u"du -xh --apparent-size --max-depth=2 /home/%1 | sort -h | tail | cat -v"_s;
        const auto large =
            u"fault|the home of the account alice, 11.2 GiB, is too large to be archived within ten minutes|"_s +
            mend.arg(u"alice"_s);
        const auto near = u"note|the home of the account bob has 11.2 GiB; about 11.2 GiB can be archived within ten "
                          "minutes|"_s +
                          mend.arg(u"bob"_s);
        QCOMPARE(asText(checkHomes(sizes, {})), QStringList({large, near}));
        // By what the compressor in force does.
        QCOMPARE(asText(checkHomes(sizes, {}, 30'000'000)), QStringList());
        QCOMPARE(
            asText(checkHomes({{u"bob"_s, 12'600'000'001}}, {}, 30'000'000)),
            QStringList({u"note|the home of the account bob has 11.7 GiB; about 16.8 GiB can be archived within ten "
                         "minutes|"_s +
                         mend.arg(u"bob"_s)}));
        QVERIFY(isNearLimit({{u"alice"_s, 1}, {u"bob"_s, 8'500'000'000}}));
        QVERIFY(!isNearLimit({{u"alice"_s, 8'300'000'000}}));

        const auto last = [](const QJsonArray &errors, qint64 seconds) {
            return QJsonObject{
                {u"backups"_s,
                 QJsonArray{QJsonObject{{u"seconds"_s, seconds},
                                        {u"errors"_s, errors},
                                        {u"accounts"_s, QJsonArray{QJsonObject{{u"username"_s, u"alice"_s}},
                                                                   QJsonObject{{u"username"_s, u"bob"_s}}}}}}}};
        };
        QCOMPARE(asText(checkHomes(sizes, last({}, 599))), QStringList());
        QCOMPARE(asText(checkHomes(sizes, last({}, 600))), QStringList({large, near}));
        QCOMPARE(asText(checkHomes(sizes, last({u"alice files: tar failed: x"_s}, 599))), QStringList({large}));
        QCOMPARE(
            asText(checkHomes(sizes, last({u"carol files: tar: took too long"_s}, 10))),
            QStringList(
                {u"fault|the home of the account carol, 0.0 GiB, is too large to be archived within ten minutes; the "
                 "last backup cut it off|"_s +
                 mend.arg(u"carol"_s)}));
    }

    void judgesWhatWasFoundOutOfABackup()
    {
        const qint64 made = corv::backup::timeOf(u"2026-01-05_031500"_s);
        const QJsonObject status = {{u"backups"_s, QJsonArray{QJsonObject{{u"name"_s, u"2026-01-05_031500"_s}}}}};
        QCOMPARE(asText(checkVerdict({}, {}, made)), QStringList());
        const QStringList none = {u"note|whether the last backup can be restored was not looked at|"
                                  "systemctl start corv-verify.service"_s};
        QCOMPARE(asText(checkVerdict(status, {}, made + 50'399)), QStringList());
        QCOMPARE(asText(checkVerdict(status, {}, made + 50'400)), none);
        Verdict verdict = {u"2026-01-05_031500"_s, 0, {}};
        QCOMPARE(asText(checkVerdict(status, verdict, made + 50'400)), none);
        verdict.checked = made + 1;
        QCOMPARE(asText(checkVerdict(status, verdict, made + 50'400)), QStringList());
        for (int i = 0; i < 6; ++i)
            verdict.files.append({QString::number(i), 1, made, u"is damaged"_s, 0, 0, 0, {}});
        QCOMPARE(asText(checkVerdict(status, verdict, made)),
                 QStringList({u"fault|the last backup is not whole: 0 is damaged; 1 is damaged; 2 is damaged; "
                              "3 is damaged; 4 is damaged; and 1 more|corvctl backup start --wait"_s}));
    }

    void judgesTheCompressor()
    {
        const auto fast = u"/usr/libexec/corvane/tools:/usr/bin"_s;
        Compressor compressor = {true, true, {{u"a.service"_s, fast}, {u"b.service"_s, fast}}};
        QCOMPARE(asText(checkCompressor(compressor)), QStringList());
        QVERIFY(isFast(compressor));
        compressor.paths.insert(u"b.service"_s, u"/usr/bin:/usr/libexec/corvane/tools"_s);
        QCOMPARE(asText(checkCompressor(compressor)),
                 QStringList({u"note|the PATH of b.service was changed and does not begin with "
                              "/usr/libexec/corvane/tools any more, so that its archives take up to ten times as long|"
                              "systemctl cat b.service"_s}));
        QVERIFY(!isFast(compressor));
        compressor = {true, false, {{u"a.service"_s, fast}}};
        QCOMPARE(asText(checkCompressor(compressor)),
                 QStringList({u"note|isal is not installed, so that backups and deletions take up to ten times as long|"
                              "apt-get install -y isal"_s}));
        QVERIFY(!isFast(compressor));
        compressor.canHaveIsal = false;
        QCOMPARE(asText(checkCompressor(compressor)), QStringList());
    }

    void readsAUnitsPath()
    {
        QCOMPARE(pathIn("A=b PATH=/x:/y LC_ALL=C\n"), u"/x:/y"_s);
        QCOMPARE(pathIn("MANPATH=/x\n"), QString());
        QCOMPARE(pathIn(""), QString());
    }

    void aReportSurvivesItsLine()
    {
        const Report report = {
            u"web1"_s,
            {{u"agent"_s, u"answers"_s, {}},
             {u"accounts"_s, u"2"_s, {{Level::Fault, u"a\x1b"_s, u"b"_s}, {Level::Note, u"c"_s, u"d"_s}}}}};
        const QByteArray line = reportLine(report);
        QCOMPARE(
            line,
            QByteArray(R"({"checks":[{"check":"agent","findings":[],"seen":"answers"},{"check":"accounts","findings":[)"
                       R"({"level":"fault","mend":"b","problem":"a\u001b"},{"level":"note","mend":"d","problem":"c"}],)"
                       R"("seen":"2"}],"faults":1,"host":"web1","notes":1,"ok":false})"));
        const std::optional<Report> read = parseReport(line);
        QVERIFY(read);
        QCOMPARE(reportLine(*read), line);
        QVERIFY(!parseReport("bash: corvctl: command not found\n"));
    }

    void namesRestoresThatWereCutOff()
    {
        const Journal shop = {u"shop"_s, u"shop"_s, u"2026-11-22_031500"_s, {}, 1000, {}};
        Journal copy = {u"copy"_s, u"shop"_s, u"/root/it's"_s, {}, 0, {}};
        copy.isWithoutJobs = true;
        QCOMPARE(asText(checkCutOff({{shop, true, true}, {copy, false, true}, {copy, true, false}})),
                 QStringList({u"fault|a restore of shop from 2026-11-22_031500 was cut off and is half done; corvctl "
                              "account delete shop gives it up, and rm /var/lib/corvane/restores/shop.json keeps the "
                              "account as it is|corvctl account restore shop --from 2026-11-22_031500"_s,
                              u"note|a restore of copy from /root/it's was cut off before the account was made; rm "
                              "/var/lib/corvane/restores/copy.json gives it up|corvctl account restore shop --from "_s +
                                  shellWord(u"/root/it's"_s) + u" --as copy --no-jobs"_s,
                              u"note|a restore of copy was cut off, and there is another user copy now|rm "
                              "/var/lib/corvane/restores/copy.json"_s}));
    }

    void namesWhatADrillHasLeft()
    {
        const auto account = [](const QString &name, const QString &domain) {
            return corv::hosting::User{name, 1000, corv::hosting::accountComment(domain), {}};
        };
        QCOMPARE(leftDrills({account(u"drill2"_s, u"drill2.drill.example"_s), account(u"drill3"_s, u"shop.example"_s),
                             account(u"drilling"_s, u"drilling.drill.example"_s)}),
                 QStringList{u"drill2"_s});
        QCOMPARE(
            asText(checkLeftDrills({u"drill2"_s})),
            QStringList{u"fault|the account drill2 is left of a drill: it is a copy of another one, and is served; "
                        "corvctl offsite drill takes it away as well|corvctl account delete drill2"_s});
    }

    void namesAccountsWhoseIdsAreNotKept()
    {
        const FormerState state = {"passwd: files systemd\ngroup: files systemd\n", true, {u"old"_s}, {}};
        QCOMPARE(
            problems(checkFormer(state)),
            QStringList(
                {u"the id of the account old is none of a usual user's, so that the next account can get it when this "
                 "one is deleted"_s}));
    }
};

QTEST_APPLESS_MAIN(TestDoctor)
#include "test_doctor.moc"
