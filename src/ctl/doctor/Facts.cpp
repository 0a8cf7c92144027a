#include "ctl/doctor/Facts.h"

#include "common/Account.h"
#include "common/Archives.h"
#include "common/BackupList.h"
#include "common/FormerIds.h"
#include "common/OwnMounts.h"
#include "common/Paths.h"
#include "common/Pool.h"
#include "common/Psql.h"
#include "common/Site.h"
#include "common/TimedRun.h"
#include "common/Usage.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/screen/Escape.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QStorageInfo>

#include <algorithm>

#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;
constexpr int kMeasureMs = 60'000;
constexpr qint64 kLongestNumber = 32;
constexpr gid_t kFirstOwnGroup = 1000; // smaller ones are the system's
constexpr auto kEnabledSites = "/etc/apache2/sites-enabled"_L1;
constexpr auto kAvailableSites = "/etc/apache2/sites-available"_L1;

QString userName(uid_t uid)
{
    const passwd *entry = ::getpwuid(uid);
    return entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(uid);
}

QString groupName(gid_t gid)
{
    const group *entry = ::getgrgid(gid);
    return entry ? QString::fromLocal8Bit(entry->gr_name) : QString::number(gid);
}

// Links that lead nowhere among them: a site may be enabled whose file is gone.
QStringList entriesIn(const QString &folder, const QString &wildcard)
{
    return QDir(folder).entryList({wildcard}, QDir::Files | QDir::System | QDir::CaseSensitive, QDir::Name);
}

// Whether a version's FPM is up: the file with its number outlives one that was killed. The folder is the web server's,
// so that the file may be anything.
bool hasLiveFpm(const QString &version)
{
    const QByteArray number = readUpTo(u"/run/php/php%1-fpm.pid"_s.arg(version), kLongestNumber).value_or(QByteArray());
    const int process = number.trimmed().toInt();
    const std::optional<QByteArray> name = process > 0 ? textOf(u"/proc/%1/comm"_s.arg(process)) : std::nullopt;
    return name && name->startsWith("php-fpm");
}

// Suspending lets a user's account expire on the first day of all; resuming takes that back.
bool isExpired(const QString &user)
{
    const spwd *entry = ::getspnam(user.toLocal8Bit().constData());
    return entry && entry->sp_expire == 1;
}

} // namespace

UnitProperties unitProperties(const QString &unit)
{
    return parseProperties(runWithin(kToolMs, u"systemctl"_s,
                                     {u"show"_s, u"-p"_s, u"LoadState,ActiveState,SubState,UnitFileState"_s, unit})
                               .output);
}

std::optional<QByteArray> textOf(const QString &path)
{
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

Found lookAt(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return {};
    return {true,
            S_ISDIR(status.st_mode),
            S_ISSOCK(status.st_mode),
            userName(status.st_uid),
            groupName(status.st_gid),
            status.st_mode & ALLPERMS};
}

bool hasVolatileJournal()
{
    const QDir journals(u"/run/log/journal"_s);
    const QStringList hosts = journals.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    return std::any_of(hosts.cbegin(), hosts.cend(),
                       [&](const QString &host) { return journals.exists(host + u"/system.journal"_s); });
}

Outcome runStatements(const QStringList &statements)
{
    QStringList args = hosting::psqlAs(u"postgres"_s) + hosting::psqlUpToAnError();
    for (const QString &statement : statements)
        args += {u"-c"_s, statement};
    return runWithin(kToolMs, u"runuser"_s, args, hosting::psqlVariables());
}

std::optional<Databases> readDatabases(QString *problem)
{
    const Outcome outcome = runStatements({kDatabasesQuery});
    const std::optional<Databases> found = parseDatabases(outcome.output);
    if (!found)
        *problem = oneSentence(QString::fromUtf8(outcome.errors));
    return found;
}

QList<PostgresVersion> readClientVersions()
{
    QList<PostgresVersion> versions;
    for (const QString &program : {u"pg_dump"_s, u"pg_restore"_s, u"psql"_s}) {
        const Outcome outcome =
            runWithin(kToolMs, u"runuser"_s, {u"-u"_s, u"postgres"_s, u"--"_s, program, u"--version"_s});
        if (const std::optional<PostgresVersion> version = parsePostgresVersion(outcome.output))
            versions.append(*version);
    }
    return versions;
}

QList<int> readServerVersions()
{
    const QString folder = u"/usr/lib/postgresql"_s;
    QList<int> versions;
    for (const QString &name : QDir(folder).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        bool isNumber = false;
        const int version = name.toInt(&isNumber);
        if (isNumber && QFileInfo(u"%1/%2/bin/postgres"_s.arg(folder, name)).isExecutable())
            versions.append(version);
    }
    return versions;
}

QStringList phpVersions()
{
    QStringList versions = QDir(u"/etc/php"_s).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    versions.removeIf(
        [](const QString &version) { return !QFileInfo(u"/etc/php/%1/fpm/pool.d"_s.arg(version)).isDir(); });
    return versions;
}

std::optional<PhpState> readPhp(const QString &version)
{
    const Outcome outcome = runWithin(kToolMs, u"php-fpm"_s + version, {u"-i"_s});
    if (!outcome.finished)
        return {};
    const QString ours = u"/etc/php/%1/fpm/conf.d/90-corvane.ini"_s.arg(version);
    return PhpState{version, parsePhpInfo(outcome.output), exists(ours)};
}

AccountParts readAccount(const hosting::User &user, const QStringList &phpVersions)
{
    AccountParts account;
    account.name = user.name;
    account.domain = hosting::domainIn(user.comment);
    account.expired = isExpired(user.name);
    if (!hosting::validUsername(user.name))
        return account;

    for (const DeletionArchives &archives : deletionArchives(kArchives, user.name)) {
        if (archives.isWhole)
            account.archives = {archives.home, archives.dump};
    }
    account.site = textOf(hosting::sitePath(user.name));
    account.siteEnabled = QFileInfo::exists(u"%1/%2.conf"_s.arg(kEnabledSites, hosting::siteName(user.name)));
    for (const QString &version : phpVersions) {
        const QStringList files = {hosting::poolPath(version, user.name), hosting::parkedPoolPath(version, user.name)};
        if (exists(hosting::poolPath(version, user.name)))
            account.pools.append(version);
        if (exists(hosting::parkedPoolPath(version, user.name)))
            account.parkedPools.append(version);
        const bool isOpen = std::any_of(files.cbegin(), files.cend(), [&](const QString &file) {
            const std::optional<QByteArray> text = textOf(file);
            return text && letsMoreIn(*text, user.name);
        });
        if (isOpen)
            account.openPools.append(version);
    }
    account.unreadPools = unreadPools(account);
    return account;
}

QStringList unreadPools(const AccountParts &account)
{
    QStringList versions = exists(u"/run/php/corv-%1.sock"_s.arg(account.name)) ? QStringList() : account.pools;
    versions.removeIf([](const QString &version) { return !hasLiveFpm(version); });
    return versions;
}

NameFacts readNameFacts(const QString &name)
{
    NameFacts facts;
    facts.name = name;
    QString problem; // where PostgreSQL cannot be asked the agent says so
    facts.databases = readDatabases(&problem);
    const QByteArray entry = name.toLocal8Bit();
    const QStringList versions = phpVersions();
    if (const passwd *user = ::getpwnam(entry.constData())) {
        facts.hasUser = true;
        const hosting::User found = {name, user->pw_uid, QString::fromLocal8Bit(user->pw_gecos),
                                     QString::fromLocal8Bit(user->pw_dir)};
        if (hosting::hasMarker(found.comment))
            facts.account = readAccount(found, versions);
        return facts;
    }
    const ::group *group = ::getgrnam(entry.constData());
    facts.hasEmptyGroup = group && group->gr_gid >= kFirstOwnGroup && !*group->gr_mem;
    facts.hasSite = exists(hosting::sitePath(name));
    for (const QString &version : versions) {
        for (const QString &pool : {hosting::poolPath(version, name), hosting::parkedPoolPath(version, name)}) {
            if (exists(pool))
                facts.pools.append(pool);
        }
    }
    static const QStringList places = {u""_s,
                                       u"/public_html"_s,
                                       u"/logs"_s,
                                       u"/tmp"_s,
                                       u"/.ssh"_s,
                                       u"/public_html/index.html"_s,
                                       u"/.ssh/authorized_keys"_s};
    facts.homeHoldsLinks = std::any_of(places.cbegin(), places.cend(), [&name](const QString &place) {
        return QFileInfo(hosting::homePath(name) + place).isSymLink();
    });
    return facts;
}

NamedParts readNamedParts(const QStringList &phpVersions)
{
    NamedParts parts;
    for (const QString &folder : {QString(kAvailableSites), QString(kEnabledSites)}) {
        for (const QString &site : entriesIn(folder, u"corv-*.conf"_s)) {
            if (!parts.sites.contains(site))
                parts.sites.append(site);
        }
    }
    for (const QString &version : phpVersions) {
        const QString folder = u"/etc/php/%1/fpm/pool.d"_s.arg(version);
        for (const QString &pool : entriesIn(folder, u"corv-*"_s))
            parts.pools.append(folder + u'/' + pool);
    }
    const QFileInfoList homes =
        QDir(u"/home"_s).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDir::Name);
    for (const QFileInfo &home : homes) {
        if (!::getpwuid(home.ownerId()))
            parts.ownerlessHomes.append(home.filePath());
    }
    return parts;
}

FormerState readFormer()
{
    FormerState state;
    state.nsswitch = textOf(u"/etc/nsswitch.conf"_s).value_or(QByteArray());
    state.linksCanBeClosed = canCloseLinks("/home");
    // crontab and systemd-logind know a user by its name, at by its id.
    for (const QString &folder : {u"/var/spool/cron/crontabs"_s, u"/var/lib/systemd/linger"_s}) {
        for (const QString &name : entriesIn(folder, u"*"_s)) {
            if (!::getpwnam(name.toLocal8Bit().constData()))
                state.ownerlessJobs.append(folder + u'/' + name);
        }
    }
    const QString jobs = u"/var/spool/cron/atjobs"_s;
    const QSet<uid_t> former = hosting::formerIds().users;
    for (const QString &name : entriesIn(jobs, u"*"_s)) {
        const uid_t owner = QFileInfo(jobs + u'/' + name).ownerId();
        if (!::getpwuid(owner) || former.contains(owner))
            state.ownerlessJobs.append(jobs + u'/' + name);
    }
    return state;
}

QHash<QString, qint64> readHomeSizes(const QList<hosting::User> &accounts)
{
    if (accounts.isEmpty())
        return {};
    QStringList args = {u"-sb"_s}; // the files' own sizes: tar reads the holes of a file too
    for (const hosting::User &account : accounts)
        args.append(account.home);
    const Outcome outcome = runWithin(kMeasureMs, u"du"_s, args);
    if (!outcome.finished)
        return {};

    const QJsonObject found = hosting::parseSizes(outcome.output);
    QHash<QString, qint64> sizes;
    for (auto entry = found.begin(); entry != found.end(); ++entry)
        sizes.insert(entry.key(), entry.value().toInteger());
    return sizes;
}

QJsonObject readBackups(const backup::Config &config)
{
    const QString state = unitProperties(u"corv-backup.service"_s).value(u"ActiveState"_s);
    return {{u"destination"_s, config.destination},
            {u"backups"_s, backup::listBackups(config.destination)},
            {u"running"_s, state == "active"_L1 || state == "activating"_L1},
            {u"freeBytes"_s, QStorageInfo(config.destination).bytesAvailable()}};
}

} // namespace corv::ctl
