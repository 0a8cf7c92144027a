#include "ctl/doctor/Firewall.h"
#include "ctl/doctor/Services.h"
#include "ctl/doctor/Settings.h"
#include "mend_of.h"

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

Service service(const QString &name, const QString &load, const QString &active, const QString &sub)
{
    return {name, {{u"LoadState"_s, load}, {u"ActiveState"_s, active}, {u"SubState"_s, sub}}};
}

const auto kFile = u"/etc/corvane/corvane.ini"_s;

} // namespace

class TestDoctorSettings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void findsAFirewallThatIsLoadedInPart_data()
    {
        QTest::addColumn<bool>("isOn");
        QTest::addColumn<bool>("isClosed");
        QTest::addColumn<QByteArray>("loaded");
        QTest::addColumn<QStringList>("expected");
        const QByteArray whole =
            "-P INPUT DROP\n-N ufw6-before-input\n-N ufw6-user-input\n-A INPUT -j ufw6-before-input\n"
            "-A ufw6-before-input -i lo -j ACCEPT\n-A ufw6-before-input -j ufw6-user-input\n"
            "-A ufw6-user-input -p tcp -m tcp --dport 22 -j ACCEPT\n";
        const auto without = [&whole](const QByteArray &line) { return QByteArray(whole).replace(line, ""); };
        const QByteArray open = QByteArray(whole).replace("INPUT DROP", "INPUT ACCEPT");
        const QStringList well;
        const QStringList inPart = {u"fault|the firewall is on, but only a part of its rules is in force: a change was "
                                    "cut off|ufw reload"_s};
        const QStringList still = {
            u"fault|the firewall is off, but still turns visitors away: a change was cut off|ufw disable"_s};
        QTest::newRow("whole") << true << true << whole << well;
        QTest::newRow("nothing") << true << true << QByteArray() << inPart;
        QTest::newRow("a door is missing")
            << true << true << without("-A ufw6-user-input -p tcp -m tcp --dport 22 -j ACCEPT\n") << inPart;
        QTest::newRow("nothing leads to the doors")
            << true << true << without("-A ufw6-before-input -j ufw6-user-input\n") << inPart;
        QTest::newRow("nothing leads to the rules")
            << true << true << without("-A INPUT -j ufw6-before-input\n") << inPart;
        QTest::newRow("the server's own rules are missing")
            << true << true << without("-A ufw6-before-input -i lo -j ACCEPT\n") << inPart;
        QTest::newRow("all else is let in") << true << true << open << inPart;
        QTest::newRow("all else is to be let in") << true << false << open << well;
        QTest::newRow("off") << false << true << open << well;
        QTest::newRow("off, with another's rules") << false << true << QByteArray("-P INPUT DROP\n") << well;
        QTest::newRow("off, and still closed") << false << true << whole << still;
    }
    void findsAFirewallThatIsLoadedInPart()
    {
        QFETCH(bool, isOn);
        QFETCH(bool, isClosed);
        QFETCH(QByteArray, loaded);
        const QByteArray kept = "### tuple ###\n-A ufw6-user-input -p tcp --dport 22 -j ACCEPT\n";
        QTEST(asText(checkFirewall({isOn, isClosed, {{"ufw6", loaded, kept}}})), "expected");
    }

    void findsNothingWithKeysThatAreRead()
    {
        QCOMPARE(asText(checkSettings({u"agent/socket"_s, u"agent/socket_group"_s, u"agent/allowed_user"_s,
                                       u"health/services"_s, u"backup/destination"_s, u"backup/keep_days"_s},
                                      kFile)),
                 QStringList());
    }

    void tellsWhatAMisspeltKeyMeans_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("finding");
        const auto meant = [](const QString &key, const QString &known, const QString &mend) {
            return u"fault|the settings have a key %1, which nothing reads; %2 is meant|%3"_s.arg(key, known, mend);
        };
        const auto sed = [](const QString &change) {
            return u"sed -i '%1' %2 && systemctl restart corv-agent"_s.arg(change, kFile);
        };
        QTest::newRow("a letter is missing") << u"backup/keepdays"_s
                                             << meant(u"backup/keepdays"_s, u"backup/keep_days"_s,
                                                      sed(u"s/^[[:space:]]*keepdays[[:space:]]*=/keep_days=/"_s));
        QTest::newRow("the section is misspelt")
            << u"backups/destination"_s
            << meant(u"backups/destination"_s, u"backup/destination"_s, sed(u"s/^[[:space:]]*[[]backups]/[backup]/"_s));
        QTest::newRow("the section is another one")
            << u"agent/destination"_s << meant(u"agent/destination"_s, u"backup/destination"_s, u"editor "_s + kFile);
        QTest::newRow("there is no section")
            << u"services"_s << u"note|the settings have a key services, which nothing reads|man corvane.ini"_s;
        QTest::newRow("nothing is near")
            << u"other/thing"_s << u"note|the settings have a key other/thing, which nothing reads|man corvane.ini"_s;
        QTest::newRow("a key that a shell or sed would take otherwise")
            << u"backup/keep.day$"_s << meant(u"backup/keep.day$"_s, u"backup/keep_days"_s, u"editor "_s + kFile);
    }
    void tellsWhatAMisspeltKeyMeans()
    {
        QFETCH(QString, key);
        QTEST(asText(checkSettings({key}, kFile)).value(0), "finding");
    }

    void findsTheNearestName_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("nearest");
        QTest::newRow("one letter") << u"postgresq"_s << u"postgresql"_s;
        QTest::newRow("two letters") << u"postgrsq"_s << u"postgresql"_s;
        QTest::newRow("three letters") << u"postgrs"_s << QString();
        QTest::newRow("a third of it") << u"sss"_s << u"ssh"_s;
        QTest::newRow("more than a third of it") << u"sx"_s << QString();
        QTest::newRow("too long") << QString(101, u'a') << QString();
    }
    void findsTheNearestName()
    {
        QFETCH(QString, name);
        QTEST(nearestName(name, {u"apache2"_s, u"postgresql"_s, u"ssh"_s, QString(101, u'a')}), "nearest");
    }

    void findsAnExpectedMount_data()
    {
        QTest::addColumn<QString>("folder");
        QTest::addColumn<QString>("point");
        QTest::newRow("the root's alone") << u"/var/backups/auto"_s << QString();
        QTest::newRow("at it") << u"/mnt/disk"_s << u"/mnt/disk"_s;
        QTest::newRow("below it") << u"/mnt/disk/auto"_s << u"/mnt/disk"_s;
        QTest::newRow("beside it") << u"/mnt/disk2/auto"_s << QString();
        QTest::newRow("below the nearer one") << u"/mnt/disk/inner/auto"_s << u"/mnt/disk/inner"_s;
        QTest::newRow("of a unit") << u"/mnt/share/auto"_s << u"/mnt/share"_s;
        QTest::newRow("with a blank") << u"/mnt/my disk/auto"_s << u"/mnt/my disk"_s;
        QTest::newRow("commented out") << u"/mnt/old/auto"_s << QString();
    }
    void findsAnExpectedMount()
    {
        QFETCH(QString, folder);
        const QByteArray fstab = "UUID=1 / ext4 defaults 0 1\nUUID=2\t/mnt/disk ext4 noauto 0 2\n"
                                 "UUID=3 /mnt/disk/inner ext4 defaults 0 2\nUUID=4 /mnt/my\\040disk ext4 x 0 0\n"
                                 "#UUID=5 /mnt/old ext4 defaults 0 2\nUUID=6 none swap sw 0 0\n";
        QTEST(plannedMount(folder, fstab, {"[Mount]\nWhat=//nas/x\nWhere=/mnt/share\n", "[Mount]\n"}), "point");
    }

    void findsADestinationWhoseDiskIsMissing()
    {
        QCOMPARE(asText(checkDestination(u"/mnt/my disk/auto"_s, u"/mnt/my disk"_s, false)),
                 QStringList{
                     u"fault|backups go to /mnt/my disk/auto, but what should be mounted at /mnt/my disk is not: they "
                     "would fill the disk below it|mount '/mnt/my disk'"_s});
        QCOMPARE(asText(checkDestination(u"/mnt/disk/auto"_s, u"/mnt/disk"_s, true)), QStringList());
        QCOMPARE(asText(checkDestination(u"/var/backups"_s, {}, false)), QStringList());
        QVERIFY(isMounted(u"/mnt/my disk"_s, "/dev/sdb1 /mnt/my\\040disk ext4 rw 0 0\n"));
        QVERIFY(!isMounted(u"/mnt/my"_s, "/dev/sdb1 /mnt/my\\040disk ext4 rw 0 0\n"));
    }

    void findsServicesThatDoNotRun()
    {
        const auto loaded = u"loaded"_s;
        QCOMPARE(
            asText(checkServices({service(u"apache2"_s, loaded, u"active"_s, u"running"_s),
                                  service(u"ssh"_s, loaded, u"reloading"_s, u"reload"_s),
                                  service(u"php8.2-fpm"_s, loaded, u"failed"_s, u"failed"_s),
                                  service(u"postgresql@15-main"_s, loaded, u"inactive"_s, u"dead"_s),
                                  service(u"postgresql"_s, u"not-found"_s, u"inactive"_s, u"dead"_s),
                                  service(u"fail2bn"_s, u"not-found"_s, u"inactive"_s, u"dead"_s),
                                  service(u"unheard-of"_s, u"not-found"_s, u"inactive"_s, u"dead"_s)},
                                 u"8.2"_s, {u"fail2ban"_s, u"ssh"_s}, {kFile, {u"fail2bn"_s, u"unheard-of"_s}}, {},
                                 {u"php8.1-fpm"_s})),
            (QStringList{
                u"fault|the service php8.2-fpm does not run: it is failed|systemctl reset-failed php8.2-fpm; systemctl "
                u"start "
                "php8.2-fpm"_s,
                u"fault|the service postgresql@15-main does not run: it is dead|systemctl start postgresql@15-main"_s,
                u"fault|the service postgresql does not run: it is not installed|apt-get install -y postgresql"_s,
                u"fault|the settings watch the service fail2bn, but no unit has that name; fail2ban is meant|sed -i "
                "'/^[[:space:]]*services[[:space:]]*=/s/fail2bn/fail2ban/' /etc/corvane/corvane.ini && systemctl "
                "restart "
                "corv-agent"_s,
                u"fault|the settings watch the service unheard-of, but no unit has that name|editor "
                "/etc/corvane/corvane.ini"_s,
            }));
    }

    void hasTheSocketsRemovedThatKeepAnFpmFromStarting()
    {
        const auto loaded = u"loaded"_s;
        QCOMPARE(asText(checkServices({service(u"php8.2-fpm"_s, loaded, u"failed"_s, u"failed"_s),
                                       service(u"php8.4-fpm"_s, loaded, u"inactive"_s, u"dead"_s),
                                       service(u"php8.1-fpm"_s, loaded, u"active"_s, u"running"_s)},
                                      u"8.2"_s, {}, {kFile, {}},
                                      {{u"php8.1-fpm"_s, {u"/run/php/corv-carol.sock"_s}},
                                       {u"php8.2-fpm"_s, {u"/run/php/corv-*.sock"_s}},
                                       {u"php8.4-fpm"_s, {u"/run/php/corv-a.sock"_s, u"/run/php/corv-b.sock"_s}}},
                                      {})),
                 (QStringList{
                     u"fault|the service php8.2-fpm does not run: it is failed|systemctl reset-failed php8.2-fpm; rm "
                     "-f /run/php/corv-*.sock; systemctl start php8.2-fpm"_s,
                     u"fault|the service php8.4-fpm does not run: it is dead|rm -f /run/php/corv-a.sock "
                     "/run/php/corv-b.sock; systemctl start php8.4-fpm"_s,
                 }));
    }

    void doesNotStartAnFpmThatHasNoPool()
    {
        const QStringList both = {u"php8.1-fpm"_s, u"php8.2-fpm"_s};
        const auto failed = u"failed"_s;
        const QList<Service> services = {service(both[0], u"loaded"_s, failed, failed),
                                         service(both[1], u"loaded"_s, failed, failed)};
        QCOMPARE(asText(checkServices(services, u"8.2"_s, {}, {kFile, {}}, {}, both)),
                 (QStringList{
                     u"fault|PHP 8.1 has no pool, so that its FPM cannot start|systemctl disable php8.1-fpm; systemctl "
                     "reset-failed php8.1-fpm"_s,
                     u"fault|PHP 8.2 has no pool, so that its FPM cannot start and no account can be made; "
                     "/etc/php/8.2/fpm/pool.d/www.conf is to be put back|[ -e /etc/php/8.2/fpm/pool.d/www.conf ] || "
                     "apt-get install --reinstall -y -o Dpkg::Options::=--force-confmiss php8.2-fpm; systemctl "
                     "reset-failed php8.2-fpm; systemctl restart php8.2-fpm"_s,
                 }));
        // One that runs has read its pools before they went.
        QCOMPARE(asText(checkServices({service(both[1], u"loaded"_s, u"active"_s, u"running"_s)}, u"8.2"_s, {},
                                      {kFile, {}}, {}, both)),
                 QStringList());
    }

    void leavesANameWithinAnotherToTheAdministrator()
    {
        QCOMPARE(checkServices({service(u"postgresq"_s, u"not-found"_s, u"inactive"_s, u"dead"_s),
                                service(u"postgresql"_s, u"loaded"_s, u"active"_s, u"exited"_s)},
                               u"8.2"_s, {u"postgresql"_s}, {kFile, {u"postgresq"_s, u"postgresql"_s}}, {}, {})
                     .value(0)
                     .mend,
                 u"editor /etc/corvane/corvane.ini"_s);
    }
};

QTEST_GUILESS_MAIN(TestDoctorSettings)
#include "test_doctor_settings.moc"
