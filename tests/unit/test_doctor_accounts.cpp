#include "common/Pool.h"
#include "common/Site.h"
#include "ctl/doctor/Accounts.h"
#include "ctl/doctor/AtWork.h"
#include "ctl/doctor/Database.h"
#include "ctl/doctor/Deletions.h"
#include "ctl/doctor/Remainders.h"
#include "mend_of.h"

#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <functional>

using namespace Qt::Literals::StringLiterals;
using namespace corv;
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

const auto kPhp = u"8.2"_s;

// An account as creation leaves it.
AccountParts whole()
{
    AccountParts account;
    account.name = u"alice"_s;
    account.domain = u"example.org"_s;
    account.site = hosting::vhost(account.name, account.domain, true, false).toUtf8();
    account.siteEnabled = true;
    account.pools = {kPhp};
    return account;
}

// The same as a suspension leaves it.
AccountParts suspended()
{
    AccountParts account = whole();
    account.site = hosting::vhost(account.name, account.domain, false, true).toUtf8();
    account.expired = true;
    account.pools = {};
    account.parkedPools = {kPhp};
    return account;
}

Databases databases(bool mayLogIn = true)
{
    return {150014, {{u"alice"_s, mayLogIn, true}, {u"postgres"_s, true, false}}, {{u"alice"_s, u"alice"_s, false}}};
}

} // namespace

Q_DECLARE_METATYPE(NameFacts)

class TestDoctorAccounts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void findsNothingWithAWholeAccount()
    {
        QCOMPARE(asText(checkAccount(whole(), kPhp, databases())), QStringList());
        QCOMPARE(asText(checkAccount(suspended(), kPhp, databases(false))), QStringList());
    }

    void findsNothingWithAnAccountOnAServerWithoutPhp()
    {
        AccountParts account = whole();
        account.site = hosting::vhost(account.name, account.domain, false, false).toUtf8();
        account.pools = {};
        QCOMPARE(asText(checkAccount(account, {}, databases())), QStringList());
    }

    void saysNothingOfDatabasesThatItCouldNotAsk()
    {
        QCOMPARE(asText(checkAccount(whole(), kPhp, {})), QStringList());
    }

    void findsAPoolThatLetsMoreIn_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QByteArray>("other");
        QTest::addColumn<bool>("open");
        QTest::newRow("as it is") << QByteArray("user = alice") << QByteArray("user = alice") << false;
        QTest::newRow("user") << QByteArray("user = alice") << QByteArray("user = bob") << true;
        QTest::newRow("listener") << QByteArray("listen.mode = 0660") << QByteArray("listen.mode = 0666") << true;
        QTest::newRow("fence") << QByteArray("php_admin_value[open_basedir] = /home/alice/") << QByteArray() << true;
        QTest::newRow("more children") << QByteArray("pm.max_children = 5") << QByteArray("pm.max_children = 9")
                                       << false;
    }
    void findsAPoolThatLetsMoreIn()
    {
        QFETCH(QByteArray, line);
        QFETCH(QByteArray, other);
        QFETCH(bool, open);
        QCOMPARE(letsMoreIn(hosting::pool(u"alice"_s).replace(line, other), u"alice"_s), open);
    }

    void tellsOfAnOpenPool()
    {
        AccountParts account = whole();
        account.openPools = {kPhp};
        QCOMPARE(asText(checkAccount(account, kPhp, databases())),
                 QStringList({u"fault|the pool of the account alice in PHP 8.2 lets in more than its own user, home or "
                              "web server|corvctl doctor --pool alice >/etc/php/8.2/fpm/pool.d/corv-alice.conf && "
                              "systemctl reload php8.2-fpm"_s}));
    }

    void tellsOfASiteThatLeadsToOthers_data()
    {
        QTest::addColumn<QByteArray>("before");
        QTest::addColumn<QByteArray>("after");
        QTest::addColumn<QString>("level");
        QTest::newRow("links") << QByteArray("+SymLinksIfOwnerMatch") << QByteArray("+FollowSymLinks") << u"fault"_s;
        QTest::newRow("all") << QByteArray("-Indexes +SymLinksIfOwnerMatch") << QByteArray("all") << u"fault"_s;
        QTest::newRow("pool") << QByteArray("corv-alice.sock") << QByteArray("corv-bobby.sock") << u"fault"_s;
        QTest::newRow("links off") << QByteArray("-Indexes") << QByteArray("-Indexes -FollowSymLinks") << u"note"_s;
        QTest::newRow("a comment") << QByteArray("    AllowOverride") << QByteArray("#\n    AllowOverride")
                                   << u"note"_s;
    }
    void tellsOfASiteThatLeadsToOthers()
    {
        QFETCH(QByteArray, before);
        QFETCH(QByteArray, after);
        QFETCH(QString, level);
        AccountParts account = whole();
        account.site->replace(before, after);
        const QStringList found = asText(checkAccount(account, kPhp, databases()));
        QCOMPARE(found.size(), 1);
        QCOMPARE(found.first().section(u'|', 0, 0), level);
    }

    void findsAnAccountThatIsOnlyAUser()
    {
        AccountParts account;
        account.name = u"alice"_s;
        account.domain = u"example.org"_s;
        QCOMPARE(
            asText(checkAccount(account, kPhp, Databases{150014, {}, {}})),
            QStringList({u"fault|the account alice is only half there: its user has no site, no pool, no role and no "
                         "database|corvctl account delete alice --force"_s}));
        QCOMPARE(asText(checkAccount(account, kPhp, Databases{150014, {{u"alice"_s, true, true}}, {}})),
                 QStringList({u"fault|the account alice is only half there: its user has no site, no pool and no "
                              "database|corvctl account delete alice --force"_s}));
    }

    void tellsADeletionThatWasCutOff()
    {
        Databases databases = ::databases();
        databases.databases[0].isInvalid = true;
        AccountParts account;
        account.name = u"alice"_s;
        account.domain = u"example.org"_s;
        account.archives = {u"/b/alice-1-home.tar.gz"_s, u"/b/alice-1-db.dump"_s};
        QCOMPARE(
            asText(checkAccount(account, kPhp, databases)),
            QStringList({u"fault|a deletion of the account alice was cut off while its database was dropped; its "
                         "archives are /b/alice-1-home.tar.gz and /b/alice-1-db.dump|corvctl account delete alice"_s}));
        account.archives = {};
        QVERIFY(!problems(checkAccount(account, kPhp, databases)).join(u' ').contains(u"a deletion of"_s));
    }

    void callsARoleALeftoverThatHasNothingToDoWithAnything()
    {
        Databases databases = {150014, {{u"gone"_s, true, true, true}, {u"other"_s, true, true, false}}, {}};
        QCOMPARE(asText(checkLeftovers({}, databases, {}, {})),
                 QStringList({u"fault|PostgreSQL has a role gone, but the server has no such user|runuser -u postgres "
                              "-- dropuser gone"_s,
                              u"note|PostgreSQL has a role other, but the server has no such user|runuser -u postgres "
                              "-- dropuser other"_s}));
        databases.databases = {{u"gone"_s, u"gone"_s}};
        databases.databases[0].isInvalid = true;
        QCOMPARE(problems(checkLeftovers({}, databases, {}, {})).first(),
                 u"the database gone, which belongs to no account, is what a drop left that was cut off"_s);
    }

    void saysWhatStandsInTheWayOfACreation_data()
    {
        QTest::addColumn<NameFacts>("facts");
        QTest::addColumn<QStringList>("expected");
        const auto facts = [](const std::function<void(NameFacts *)> &change) {
            NameFacts name;
            name.name = u"gone"_s;
            name.databases = Databases{};
            change(&name);
            return name;
        };
        const Role role = {u"gone"_s, true, true, true};
        const auto dropRole =
            u"PostgreSQL has a role gone, but there is no such account|runuser -u postgres -- dropuser gone"_s;
        QTest::newRow("nothing") << facts([](NameFacts *) {}) << QStringList();
        QTest::newRow("role") << facts([&](NameFacts *name) { name->databases->roles = {role}; })
                              << QStringList({dropRole});
        QTest::newRow("role that may more") << facts([&](NameFacts *name) {
            name->databases->roles = {{u"gone"_s, true, false, true}};
        }) << QStringList({u"PostgreSQL has a role gone that may do more than an account's|"_s});
        QTest::newRow("role and database")
            << facts([&](NameFacts *name) {
                   name->databases->roles = {role};
                   name->databases->databases = {{u"gone"_s, u"gone"_s}};
               })
            << QStringList(
                   {u"PostgreSQL has a database gone, but there is no such account|runuser -u postgres -- pg_dump "
                    "-Fc gone >/var/backups/corvane/gone-1-db.dump && runuser -u postgres -- dropdb gone"_s,
                    dropRole});
        QTest::newRow("template that nobody may enter")
            << facts([&](NameFacts *name) {
                   name->databases->roles = {role};
                   name->databases->databases = {{u"gone"_s, u"gone"_s, false, true, true}};
               })
            << QStringList(
                   {u"PostgreSQL has a database gone, but there is no such account|runuser -u postgres -- psql -qc "
                    "'ALTER DATABASE \"gone\" IS_TEMPLATE false' && runuser -u postgres -- psql -qc 'ALTER DATABASE "
                    "\"gone\" ALLOW_CONNECTIONS true' && runuser -u postgres -- pg_dump -Fc gone "
                    ">/var/backups/corvane/gone-1-db.dump && runuser -u postgres -- dropdb gone"_s,
                    dropRole});
        QTest::newRow("invalid database")
            << facts([&](NameFacts *name) {
                   name->databases->databases = {{u"gone"_s, u"gone"_s}};
                   name->databases->databases[0].isInvalid = true;
               })
            << QStringList(
                   {u"the database gone is what a drop left that was cut off|runuser -u postgres -- dropdb gone"_s});
        QTest::newRow("another's database") << facts([&](NameFacts *name) {
            name->databases->databases = {{u"gone"_s, u"postgres"_s}};
        }) << QStringList({u"PostgreSQL has a database gone of postgres, which is not what an account leaves|"_s});
        QTest::newRow("files")
            << facts([&](NameFacts *name) {
                   name->hasSite = true;
                   name->homeHoldsLinks = true;
                   name->hasEmptyGroup = true;
                   name->pools = {u"/p"_s};
               })
            << QStringList({u"an Apache site is left of gone, which is no account|rm -f "
                            "/etc/apache2/sites-enabled/corv-gone.conf /etc/apache2/sites-available/corv-gone.conf"_s,
                            u"the folder /home/gone is there, and holds links|mv -T /home/gone /home/.former-gone-1"_s,
                            u"there is a group gone without a user or a member|groupdel gone"_s,
                            u"a PHP pool is left of gone, which is no account|rm -f /p"_s});
        QTest::newRow("a pool alone") << facts([](NameFacts *name) { name->pools = {u"/p"_s}; }) << QStringList();
        QTest::newRow("a user of the system") << facts([&](NameFacts *name) {
            name->hasUser = true;
            name->databases->roles = {role};
        }) << QStringList();
        QTest::newRow("a user of an account")
            << facts([&](NameFacts *name) {
                   name->hasUser = true;
                   name->account = AccountParts();
                   name->account->name = u"gone"_s;
               })
            << QStringList({u"the user gone is what is left of an account: take it away by corvctl account delete gone "
                            "--force|"_s});
        QTest::newRow("a user of an account whose deletion was cut off")
            << facts([&](NameFacts *name) {
                   name->hasUser = true;
                   name->account = AccountParts();
                   name->account->name = u"gone"_s;
                   name->account->archives = {u"/b/gone-1-home.tar.gz"_s, u"/b/gone-1-db.dump"_s};
                   name->databases->databases = {{u"gone"_s, u"gone"_s}};
                   name->databases->databases[0].isInvalid = true;
               })
            << QStringList(
                   {u"the user gone is what is left of an account: take it away by corvctl account delete gone|"_s});
        QTest::newRow("an account") << facts([&](NameFacts *name) {
            name->hasUser = true;
            name->account = whole();
        }) << QStringList();
    }
    void saysWhatStandsInTheWayOfACreation()
    {
        QFETCH(NameFacts, facts);
        QStringList found;
        for (const Remainder &remainder : remaindersOf(facts, u"1"_s))
            found.append(remainder.what + u'|' + shellLine(remainder.steps));
        QTEST(found, "expected");
    }

    void saysWhatKeepsAnAccountFromBeingDeleted()
    {
        const auto statements = [](const Databases &databases) {
            QStringList all;
            for (const Obstacle &obstacle : obstaclesOfAccount(u"alice"_s, databases))
                all.append(obstacle.statement);
            return all;
        };
        QCOMPARE(statements(databases()), QStringList());
        const QStringList make = {u"CREATE DATABASE \"alice\" OWNER \"alice\""_s,
                                  u"REVOKE ALL ON DATABASE \"alice\" FROM PUBLIC"_s};
        QCOMPARE(statements({}), QStringList({u"CREATE ROLE \"alice\" NOLOGIN"_s}) + make);
        QCOMPARE(statements({150014, {{u"alice"_s}}, {}}), make);
        QCOMPARE(statements({150014, {{u"alice"_s}}, {{u"alice__old"_s, u"alice"_s}}}),
                 QStringList({u"ALTER DATABASE \"alice__old\" RENAME TO \"alice\""_s}));
        Databases invalid = databases();
        invalid.databases[0].isInvalid = true;
        QCOMPARE(statements(invalid), QStringList({u"DROP DATABASE \"alice\""_s}) + make);
    }

    void findsWhatRefusedDeletionsHaveLeft()
    {
        QTemporaryDir folder;
        const auto write = [&folder](const QString &name, qint64 bytes, QFileDevice::Permissions more) {
            QFile file(folder.filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(bytes));
            QVERIFY(file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | more));
        };
        const QFileDevice::Permissions open = QFileDevice::ReadGroup | QFileDevice::ReadOther;
        write(u"alice-20260105-031500-home.tar.gz"_s, 2048, open);
        write(u"alice-20260105-031600-home.tar.gz"_s, 1024, open);
        write(u"alice-20260105-031600-db.dump"_s, 0, open);
        write(u"alice-20260105-031700-home.tar.gz"_s, 9, {});
        write(u"alice-20260105-031700-db.dump"_s, 9, {});
        write(u"bobby-20260105-031500-home.tar.gz"_s, 9, open);
        write(u"alice-20260105-home.tar.gz"_s, 9, open);

        const QList<DeletionArchives> all = deletionArchives(folder.path(), {});
        QCOMPARE(all.size(), 4);
        QCOMPARE(deletionArchives(folder.path(), u"bobby"_s).size(), 1);
        QCOMPARE(all[2].isWhole, true);
        const qint64 later = QDateTime::currentMSecsSinceEpoch() + 10'000;
        const QString at = folder.path() + u"/alice-20260105-03"_s;
        QCOMPARE(asText(checkRefusedDeletions(all, {u"alice"_s}, later)),
                 QStringList({u"note|deletions of the account alice that were refused have left archives of 3.0 KiB|rm "
                              "@1500-home.tar.gz @1600-home.tar.gz @1600-db.dump"_s.replace(u'@', at)}));
        QCOMPARE(asText(checkRefusedDeletions(all, {u"alice"_s}, 0)), QStringList());
        QCOMPARE(asText(checkRefusedDeletions(all, {}, later)), QStringList());
    }

    void findsAMarkOnAUserThatCanBeNoAccount()
    {
        AccountParts account = whole();
        account.name = u"Al'ice"_s;
        QCOMPARE(asText(checkAccount(account, kPhp, databases())),
                 QStringList({u"fault|the user 'Al'ice' is marked as an account, but no account can have that "
                              u"name|usermod --comment '' "
                              "'Al'\"'\"'ice'"_s}));
    }

    void findsADomainThatIsNone_data()
    {
        QTest::addColumn<QString>("domain");
        QTest::newRow("none") << QString();
        QTest::newRow("line feed") << u"example.org\n"_s;
        QTest::newRow("capitals") << u"Example.org"_s;
    }
    void findsADomainThatIsNone()
    {
        QFETCH(QString, domain);
        AccountParts account = whole();
        account.domain = domain;
        QCOMPARE(asText(checkAccount(account, kPhp, databases())),
                 QStringList(
                     {u"fault|the user database has no valid domain for the account alice, only '%1'|usermod --comment "
                      "'Corvane account,example.org' alice"_s.arg(domain)}));
    }

    void findsADomainWhoseLogsCannotBeRotated()
    {
        const QString tail = u".example.example.example"_s;
        for (const qsizetype length : {238, 239}) {
            AccountParts account = whole();
            account.domain = QString(63, u'a') + u'.' + QString(63, u'b') + u'.' + QString(63, u'c') + u'.';
            account.domain += QString(length - account.domain.size() - tail.size(), u'd') + tail;
            account.site = hosting::vhost(account.name, account.domain, true, false).toUtf8();
            QCOMPARE(account.domain.size(), length);
            QCOMPARE(asText(checkAccount(account, kPhp, databases())),
                     length == 238
                         ? QStringList()
                         : QStringList{u"fault|the domain of the account alice has 239 characters, too many for "
                                       "the names of its logs: none of Apache's logs is rotated any "
                                       "more|corvctl account domain alice DOMAIN"_s});
        }
    }

    void findsWhatIsMissingInPostgres()
    {
        QCOMPARE(asText(checkAccount(whole(), kPhp, Databases{150014, {}, {}})),
                 QStringList(
                     {u"fault|the account alice has no role in PostgreSQL|runuser -u postgres -- createuser alice && "
                      "corvctl account password alice"_s,
                      u"fault|the account alice has no database|runuser -u postgres -- createdb -O alice alice && "
                      "runuser -u postgres -- psql -c 'REVOKE ALL ON DATABASE \"alice\" FROM PUBLIC'"_s}));
    }

    void findsADatabaseOfTheWrongOwnerThatIsOpenToAll()
    {
        Databases all = databases();
        all.databases = {{u"alice"_s, u"postgres"_s, true}};
        QCOMPARE(
            asText(checkAccount(whole(), kPhp, all)),
            QStringList(
                {u"fault|the database of the account alice belongs to postgres, not to alice|runuser -u postgres -- "
                 "psql -c 'ALTER DATABASE \"alice\" OWNER TO \"alice\"'"_s,
                 u"fault|every role may connect to the database of the account alice|runuser -u postgres -- psql -c "
                 "'REVOKE ALL ON DATABASE \"alice\" FROM PUBLIC'"_s}));
    }

    void findsTheLiveDatabaseThatARestorePutAside()
    {
        Databases all = databases();
        all.databases = {{u"alice__old"_s, u"alice"_s, false}};
        QCOMPARE(
            asText(checkAccount(whole(), kPhp, all)),
            QStringList(
                {u"fault|the database of the account alice is missing; a restore that was cut off left it as "
                 "alice__old|runuser -u postgres -- psql -c 'ALTER DATABASE \"alice__old\" RENAME TO \"alice\"'"_s}));
        // Its drop must not be proposed.
        QCOMPARE(asText(checkLeftovers({}, all, {u"alice"_s}, {u"alice"_s})), QStringList());
    }

    void findsAHalfSuspendedAccount()
    {
        QCOMPARE(
            asText(checkAccount(suspended(), kPhp, databases(true))),
            QStringList(
                {u"fault|the account alice is only half suspended: its site is off, its user is locked, its role is "
                 "not locked|corvctl account suspend alice"_s}));
        AccountParts account = whole();
        account.expired = true;
        QCOMPARE(problems(checkAccount(account, kPhp, databases())),
                 QStringList(
                     {u"the account alice is only half suspended: its site is on, its user is locked, its role is not "
                      "locked"_s}));
    }

    void findsPoolsThatAreNotWhereTheyBelong_data()
    {
        QTest::addColumn<QStringList>("pools");
        QTest::addColumn<QStringList>("parked");
        QTest::addColumn<QString>("finding");
        const auto pool = [](const char *version) {
            return u"/etc/php/%1/fpm/pool.d/corv-alice.conf"_s.arg(QLatin1StringView(version));
        };
        QTest::newRow("none")
            << QStringList() << QStringList()
            << u"fault|the account alice has no pool in PHP 8.2, the version in force|corvctl doctor --pool "
               "alice >%1 && systemctl reload php8.2-fpm"_s.arg(pool("8.2"));
        QTest::newRow("two versions") << QStringList{u"8.1"_s, u"8.2"_s} << QStringList()
                                      << u"fault|the account alice has a second pool in PHP 8.1|rm %1; systemctl "
                                         u"try-reload-or-restart php8.1-fpm; "
                                         "systemctl reload php8.2-fpm"_s.arg(pool("8.1"));
        QTest::newRow("put aside")
            << QStringList() << QStringList{u"8.2"_s}
            << u"fault|the PHP pool of the account alice is put aside as if it were suspended|corvctl "
               "account resume alice"_s;
        QTest::newRow("both") << QStringList{u"8.2"_s} << QStringList{u"8.2"_s}
                              << u"fault|the account alice has a pool that was put aside beside the one in use|rm "
                                 "%1.suspended"_s.arg(pool("8.2"));
    }
    void findsPoolsThatAreNotWhereTheyBelong()
    {
        QFETCH(QStringList, pools);
        QFETCH(QStringList, parked);
        QFETCH(QString, finding);
        AccountParts account = whole();
        account.pools = pools;
        account.parkedPools = parked;
        QCOMPARE(asText(checkAccount(account, kPhp, databases())), QStringList({finding}));
    }

    void findsASuspendedAccountThatWouldComeBackWithoutPhp()
    {
        AccountParts account = suspended();
        account.pools.clear();
        account.parkedPools.clear();
        QCOMPARE(asText(checkAccount(account, kPhp, databases(false))),
                 QStringList({u"fault|the suspended account alice has no pool in PHP 8.2 to come back with|corvctl "
                              "doctor --pool alice >/etc/php/8.2/fpm/pool.d/corv-alice.conf.suspended"_s}));
        QCOMPARE(asText(checkAccount(account, QString(), databases(false))), QStringList());
        account.parkedPools = {u"8.1"_s};
        QCOMPARE(asText(checkAccount(account, kPhp, databases(false))), QStringList());
    }

    void findsAPoolThatPhpHasNotRead()
    {
        AccountParts account = whole();
        account.unreadPools = {u"8.2"_s};
        QCOMPARE(asText(checkAccount(account, kPhp, databases())),
                 QStringList({u"fault|PHP 8.2 does not run for the account alice: nothing listens at its socket|"
                              "systemctl restart php8.2-fpm"_s}));
        account.unreadPools = {u"8.1"_s};
        QCOMPARE(asText(checkAccount(account, kPhp, databases())), QStringList());
    }

    void leavesAPoolOfAnotherVersionToTheLookAtPhp()
    {
        AccountParts account = whole();
        account.pools = {u"8.1"_s};
        QCOMPARE(problems(checkAccount(account, kPhp, databases())), QStringList());
    }

    void findsThePoolOfASuspendedAccountThatStillRuns()
    {
        AccountParts account = suspended();
        account.pools = {kPhp};
        QCOMPARE(problems(checkAccount(account, kPhp, databases(false))),
                 QStringList({u"the account alice is suspended, but its PHP pool still runs"_s}));
    }

    void findsWhatIsWrongWithASite()
    {
        AccountParts account = whole();
        account.site.reset();
        QCOMPARE(
            asText(checkAccount(account, kPhp, databases())),
            QStringList(
                {u"fault|the account alice has no Apache site|corvctl account resume alice && a2ensite -q corv-alice "
                 "&& systemctl reload apache2"_s}));
        account = whole();
        account.siteEnabled = false;
        QCOMPARE(asText(checkAccount(account, kPhp, databases())),
                 QStringList(
                     {u"fault|the Apache site of the account alice is not enabled|a2ensite -q corv-alice && systemctl "
                      "reload apache2"_s}));
        account = whole();
        account.site = hosting::vhost(account.name, account.domain, false, false).toUtf8();
        QCOMPARE(
            asText(checkAccount(account, kPhp, databases())),
            QStringList(
                {u"fault|the site of the account alice runs no PHP, but shows the source of its pages|corvctl account "
                 "resume alice"_s}));
        account = whole();
        *account.site += "# by hand\n";
        QCOMPARE(asText(checkAccount(account, kPhp, databases())),
                 QStringList({u"note|the site file of the account alice is not what the agent writes; it will be "
                              "overwritten|corvctl account resume alice"_s}));
    }

    void findsASiteFileThatWasCutOff()
    {
        for (const qsizetype left : {0, 1, 200}) {
            AccountParts account = whole();
            account.site->truncate(left);
            QCOMPARE(asText(checkAccount(account, kPhp, databases())),
                     QStringList({u"fault|the site file of the account alice was cut off|"
                                  "corvctl account resume alice"_s}));
        }
    }

    void findsLeftovers()
    {
        const NamedParts parts = {
            {u"corv-alice.conf"_s, u"corv-bob.conf"_s, u"corv-Bob.conf"_s, u"000-default.conf"_s},
            {u"/etc/php/8.2/fpm/pool.d/corv-alice.conf"_s, u"/etc/php/8.2/fpm/pool.d/corv-bob.conf.suspended"_s},
            {u"/home/old one"_s, u"/home/old2"_s}};
        QCOMPARE(asText(checkLeftovers(parts, databases(), {u"root"_s, u"alice"_s}, {u"alice"_s})),
                 QStringList(
                     {u"fault|a PHP pool is left of bob, which is no account|rm "
                      "/etc/php/8.2/fpm/pool.d/corv-bob.conf.suspended; systemctl try-reload-or-restart php8.2-fpm"_s,
                      u"fault|an Apache site is left of bob, which is no account|rm -f "
                      "/etc/apache2/sites-*/corv-bob.conf && systemctl reload apache2"_s,
                      u"fault|the folder /home/old one belongs to no user|tar -czf '/root/left-over-old one.tar.gz' "
                      u"'/home/old "
                      "one' && rm -rf '/home/old one'"_s,
                      u"fault|the folder /home/old2 belongs to no user|tar -czf /root/left-over-old2.tar.gz /home/old2 "
                      u"&& rm "
                      "-rf /home/old2"_s}));
    }

    void leavesOutWhatTheAgentIsWorkingOn()
    {
        NamedParts parts = {{u"corv-alice.conf"_s, u"corv-bob.conf"_s},
                            {u"/etc/php/8.2/fpm/pool.d/corv-alice.conf.suspended"_s, u"/p/corv-bob.conf"_s},
                            {u"/home/alice"_s, u"/home/alice2"_s}};
        std::optional<Databases> all = Databases{150014, {{u"alice"_s, true, true}, {u"bob"_s, true, true}}, {}};
        for (const char *name : {"alice", "alice__old", "alice__restore", "alice2", "bob__restore"})
            all->databases.append({QString::fromLatin1(name), u"x"_s});
        leaveOut(u"alice"_s, &parts, &all);
        QCOMPARE(parts.sites, QStringList({u"corv-bob.conf"_s}));
        QCOMPARE(parts.pools, QStringList({u"/p/corv-bob.conf"_s}));
        QCOMPARE(parts.ownerlessHomes, QStringList({u"/home/alice2"_s}));
        QCOMPARE(all->databases.size(), 2);
        QCOMPARE(all->databases[0].name, u"alice2"_s);
        QCOMPARE(all->databases[1].name, u"bob__restore"_s);
        QCOMPARE(all->roles.size(), 1);
        QCOMPARE(all->roles[0].name, u"bob"_s);
        std::optional<Databases> none;
        leaveOut(u"bob"_s, &parts, &none);
        QVERIFY(!none && parts.sites.isEmpty());
    }

    void findsLeftoversInPostgres()
    {
        Databases all = databases();
        all.roles.append(
            {{u"bob"_s, true, true}, {u"carol"_s, true, true}, {u"dave"_s, true, false}, {u"erin"_s, true, true}});
        all.databases.append({{u"bob"_s, u"bob"_s, false},
                              {u"erin"_s, u"erin"_s, true},
                              {u"alice__restore"_s, u"alice"_s, false},
                              {u"alice__old"_s, u"alice"_s, false, true},
                              {u"X__old"_s, u"postgres"_s, false}});
        all.roles.append({u"frank"_s, true, true});
        all.databases.append({u"frank"_s, u"frank"_s, false, true, true});
        QCOMPARE(
            asText(checkLeftovers({}, all, {u"root"_s, u"alice"_s, u"postgres"_s}, {u"alice"_s})),
            QStringList(
                {u"fault|a restore that was cut off left the database alice__restore|runuser -u postgres -- dropdb "
                 "alice__restore"_s,
                 u"fault|a restore that was cut off left the database alice__old|runuser -u postgres -- psql -qc "
                 u"'ALTER "
                 "DATABASE \"alice__old\" IS_TEMPLATE false' && runuser -u postgres -- dropdb alice__old"_s,
                 u"fault|the role and database bob belong to no account|runuser -u postgres -- pg_dump -Fc bob "
                 ">/root/bob-db.dump && runuser -u postgres -- dropdb bob && runuser -u postgres -- dropuser bob"_s,
                 u"note|PostgreSQL has a role carol, but the server has no such user|runuser -u postgres -- dropuser "
                 "carol"_s,
                 u"fault|the role and database frank belong to no account|runuser -u postgres -- psql -qc 'ALTER "
                 "DATABASE \"frank\" IS_TEMPLATE false' && runuser -u postgres -- psql -qc 'ALTER DATABASE \"frank\" "
                 "ALLOW_CONNECTIONS true' && runuser -u postgres -- pg_dump -Fc frank >/root/frank-db.dump && runuser "
                 "-u postgres -- dropdb frank && runuser -u postgres -- dropuser frank"_s}));
    }

    void knowsTheAccountOfAFile_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("account");
        QTest::newRow("site") << u"corv-alice.conf"_s << u"alice"_s;
        QTest::newRow("parked pool") << u"corv-alice.conf.suspended"_s << u"alice"_s;
        QTest::newRow("short") << u"corv-al.conf"_s << QString();
        QTest::newRow("capital") << u"corv-Alice.conf"_s << QString();
        QTest::newRow("line feed") << u"corv-alice.conf\n"_s << QString();
        QTest::newRow("panel") << u"corvane.conf"_s << QString();
        QTest::newRow("copy") << u"corv-alice.conf.bak"_s << QString();
    }
    void knowsTheAccountOfAFile()
    {
        QFETCH(QString, file);
        QTEST(accountOfFile(file), "account");
    }
};

QTEST_APPLESS_MAIN(TestDoctorAccounts)
#include "test_doctor_accounts.moc"
