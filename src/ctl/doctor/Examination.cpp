#include "ctl/doctor/Examination.h"

#include "common/Account.h"
#include "common/BackupConfig.h"
#include "common/Config.h"
#include "common/FormerIds.h"
#include "common/Json.h"
#include "common/Packages.h"
#include "common/Pool.h"
#include "common/Quotas.h"
#include "common/RequiredMount.h"
#include "common/Site.h"
#include "common/System.h"
#include "common/TimedRun.h"
#include "ctl/Turn.h"
#include "ctl/doctor/AtWork.h"
#include "ctl/doctor/Backup.h"
#include "ctl/doctor/Compressor.h"
#include "ctl/doctor/Deletions.h"
#include "ctl/doctor/Facts.h"
#include "ctl/doctor/Https.h"
#include "ctl/doctor/Modules.h"
#include "ctl/doctor/Notify.h"
#include "ctl/doctor/Offsite.h"
#include "ctl/doctor/PhpPools.h"
#include "ctl/doctor/Reach.h"
#include "ctl/doctor/Restores.h"
#include "ctl/doctor/Services.h"
#include "ctl/doctor/Settings.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/doctor/Updates.h"
#include "ctl/doctor/Visitors.h"
#include "ctl/https/View.h"
#include "ctl/php/MoveJournal.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QSettings>
#include <QStandardPaths>

#include <algorithm>

#include <grp.h>
#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;
constexpr int kVisitMs = 3'000;
constexpr qint64 kLargestText = 1'048'576;

Outcome runTool(const QString &program, const QStringList &args)
{
    return runWithin(kToolMs, program, args);
}

QString firstOf(const QByteArray &errors)
{
    return QString::fromUtf8(errors).simplified();
}

// The settings, as far as something else than what they are about tells that they are wrong.
Check checkSettings(const QSettings &settings, const QString &path)
{
    const QString destination = backup::load(settings).destination;
    QList<QByteArray> units;
    for (const QString &unit : QDir(u"/etc/systemd/system"_s).entryList({u"*.mount"_s, u"*.automount"_s}, QDir::Files))
        units.append(readUpTo(u"/etc/systemd/system/"_s + unit, kLargestText).value_or(QByteArray()));
    // What has to be mounted, by the settings' own word or by what the system plans.
    const QString required = backup::requiredMount(settings);
    const QString point =
        required.isEmpty()
            ? plannedMount(destination, readUpTo(u"/etc/fstab"_s, kLargestText).value_or(QByteArray()), units)
            : required;
    return {u"settings"_s, path,
            ctl::checkSettings(settings.allKeys(), path) +
                checkDestination(destination, point,
                                 isMounted(point, textOf(u"/proc/self/mounts"_s).value_or(QByteArray())))};
}

Check checkServices(const QSettings &settings, const QString &path, const QString &php)
{
    const QStringList watched = system::monitoredServices(settings);
    QStringList services = watched;
    for (const QString &needed : neededServices(php)) {
        if (!services.contains(needed))
            services.append(needed);
    }
    const QList<Service> found = readServices(services);
    const bool isKnown = std::none_of(found.cbegin(), found.cend(), [](const Service &service) {
        return service.second.value(u"LoadState"_s) == "not-found"_L1;
    });
    return {u"services"_s, services.join(u' '),
            ctl::checkServices(found, php, isKnown ? QStringList() : knownServices(), {path, watched})};
}

Check checkApache()
{
    Check check = {u"Apache"_s, u"modules and log format"_s, {}};
    const Outcome test = runTool(u"apache2ctl"_s, {u"-t"_s, u"-D"_s, u"DUMP_INCLUDES"_s});
    if (!test.succeeded) {
        check.findings.append(
            {Level::Fault,
             u"Apache's configuration has an error, so that no site can be changed: "_s + firstOf(test.errors),
             u"apache2ctl configtest"_s});
        return check;
    }

    const QStringList files = parseIncludes(test.output);
    const bool hasLogFormat = std::any_of(files.cbegin(), files.cend(), [](const QString &file) {
        return definesLogFormat(textOf(file).value_or(QByteArray()), u"corv"_s);
    });
    check.findings = ctl::checkApache(parseModules(runTool(u"apache2ctl"_s, {u"-M"_s}).output), hasLogFormat);
    return check;
}

// Of every version that has pools: a site may use another one than new accounts get.
Check checkPhp(const QString &inForce)
{
    Check check = {u"PHP"_s, {}, {}};
    QStringList seen;
    for (const QString &version : phpVersions()) {
        const std::optional<PhpState> state = readPhp(version);
        if (!state)
            continue;
        seen.append(version);
        check.findings += ctl::checkPhp(*state);
    }
    QString problem;
    const QList<PhpPools> pools = readPhpPools(&problem);
    const std::optional<MoveJournal> cutOff = isTurnTaken(kPhpLock) ? std::nullopt : readMove();
    check.findings += checkPhpPools(pools, inForce, cutOff ? QStringList{cutOff->from, cutOff->to} : QStringList());
    check.seen = seen.isEmpty() ? u"not installed"_s : u"cache of "_s + seen.join(u' ');
    return check;
}

Check checkSshd()
{
    const Outcome run = runTool(u"sshd"_s, {u"-T"_s});
    const bool isInstalled = run.finished || !run.errors.isEmpty();
    Check check = {u"sshd"_s, u"sshd -T"_s,
                   ctl::checkSshd({isInstalled, run.succeeded, run.errors, lookAt(u"/run/sshd"_s).isFolder})};
    if (hasVolatileJournal())
        check.findings += checkSshdJail(runTool(u"fail2ban-client"_s, {u"get"_s, u"sshd"_s, u"journalmatch"_s}).output);
    return check;
}

Check checkPostgres(const std::optional<Databases> &databases, const QString &problem)
{
    Check check = {u"PostgreSQL"_s, {}, {}};
    QList<PostgresVersion> programs = readClientVersions();
    if (databases) {
        constexpr int kMajorFactor = 10'000;
        programs.prepend({u"the server"_s, databases->version / kMajorFactor, databases->version % kMajorFactor});
        check.findings += checkPanelDatabase(*databases) + checkSharedDatabases(*databases);
    } else {
        check.findings.append(
            {Level::Fault, u"PostgreSQL cannot be asked: "_s + problem,
             installed(u"postgresql"_s) ? u"systemctl start postgresql"_s : u"apt-get install -y postgresql"_s});
    }
    QStringList seen;
    for (const PostgresVersion &program : programs)
        seen.append(u"%1 %2.%3"_s.arg(program.program).arg(program.major).arg(program.minor));
    check.seen = seen.join(", "_L1);
    check.findings += checkPostgresVersions(programs);
    return check;
}

struct Accounts
{
    QList<hosting::User> all; // every user
    QList<hosting::User> accounts;
    QString atWork; // the account that the agent is working on, which is not among them
};

Accounts readAccounts()
{
    Accounts found;
    found.all = hosting::users();
    for (const hosting::User &user : found.all) {
        if (hosting::hasMarker(user.comment))
            found.accounts.append(user);
    }
    return found;
}

QStringList namesOf(const QList<hosting::User> &users)
{
    QStringList names;
    for (const hosting::User &user : users)
        names.append(user.name);
    return names;
}

// What is left over in files. It keeps services from starting, so that it is told of before them.
Check checkFiles(const Accounts &users, const NamedParts &parts)
{
    return {u"leftovers"_s, u"sites, pools, homes"_s,
            checkLeftovers(parts, {}, namesOf(users.all), namesOf(users.accounts))};
}

// began: when the examination did; what a deletion is working on meanwhile is none that was refused.
Check checkAccounts(const Accounts &users, const QList<AccountSite> &sites, const QString &php,
                    const std::optional<Databases> &databases, qint64 began)
{
    const QStringList versions = phpVersions();
    QStringList suspended;
    for (const AccountSite &site : sites) {
        if (site.suspended)
            suspended.append(site.name);
    }
    const QString off =
        suspended.isEmpty() ? QString() : u", %1 suspended (%2)"_s.arg(suspended.size()).arg(someOf(suspended));
    Check check = {
        u"accounts"_s,
        u"%1%2, PHP %3"_s.arg(QString::number(users.accounts.size()), off, php.isEmpty() ? u"not installed"_s : php),
        {}};
    if (!users.atWork.isEmpty())
        check.seen += u"; without %1, which the agent is working on"_s.arg(users.atWork);
    for (const hosting::User &user : users.accounts)
        check.findings += checkAccount(readAccount(user, versions), php, databases);
    check.findings += checkLeftovers({}, databases, namesOf(users.all), namesOf(users.accounts));
    check.findings += checkCutOff(readCutOff()) + checkLeftDrills(leftDrills(users.accounts));
    check.findings += checkRefusedDeletions(deletionArchives(kArchives, {}), namesOf(users.accounts), began);
    return check;
}

Check checkSites(const Accounts &users, const QList<VirtualHost> &hosts, const QList<AccountSite> &sites)
{
    return {u"sites"_s, u"%1 enabled"_s.arg(hosts.size()), ctl::checkSites(hosts, sites, namesOf(users.all))};
}

Check checkVisitors(const QList<VirtualHost> &hosts, const QList<AccountSite> &sites, const QString &php)
{
    const QList<SiteSight> sights = sightsOf(hosts, sites, visit(visitsTo(hosts), kVisitMs));
    const auto asked = std::count_if(sights.cbegin(), sights.cend(),
                                     [](const SiteSight &sight) { return sight.sight != Sight::NotAsked; });
    return {u"visitors"_s, u"%1 sites asked for their first page"_s.arg(asked), checkSights(sights, php)};
}

Check checkFormer(const Accounts &users)
{
    FormerState state = readFormer();
    for (const hosting::User &user : users.accounts) {
        if (!hosting::isAccountId(user.uid))
            state.unkeptAccounts.append(user.name);
    }
    return {u"ids"_s, u"%1 of deleted accounts kept"_s.arg(hosting::formerIds().users.size()), ctl::checkFormer(state)};
}

Check checkQuota()
{
    const quota::Mount home = quota::homeMount();
    QuotaState state;
    state.mount = home.point;
    state.type = home.type;
    state.supported = home.type == quota::kSupportedType;
    state.hasPackage = installed(quota::kQuotaPackage);
    state.enabled = state.hasPackage && quota::enabled();
    state.isInFstab = asksForQuotas(textOf(u"/etc/fstab"_s).value_or(QByteArray()), state.mount);
    state.modulesPackage = modulesPackage();
    state.hasModules = state.enabled || !state.supported || canHaveModulesPackage() || kernelHasQuotas();
    const QString word = state.enabled ? u"on"_s : state.supported ? u"off"_s : u"not to be had"_s;
    return {u"quotas"_s, u"%1, %2 on %3"_s.arg(word, state.type, state.mount), ctl::checkQuota(state)};
}

Check checkApt()
{
    const QByteArray value =
        runTool(u"apt-config"_s, {u"dump"_s, u"--format"_s, u"%v"_s, u"DPkg::Lock::Timeout"_s}).output;
    const QString seconds = QString::fromUtf8(value).trimmed();
    return {u"apt"_s, u"waits %1 s for its lock"_s.arg(seconds.isEmpty() ? u"0"_s : seconds),
            checkLockTimeout(seconds)};
}

Check checkUpdates()
{
    const bool isOn = isAutomatic();
    return {u"updates"_s, isOn ? u"automatic"_s : u"not automatic"_s,
            isOn ? checkAutomatic(readAutomatic()) : QList<Finding>()};
}

Check checkNotify(const QSettings &settings, const QJsonObject &backups)
{
    const Ways ways = waysIn(settings);
    const QString to = (ways.mail + ways.command.mid(0, 1)).join(", "_L1);
    return {u"notify"_s, to.isEmpty() ? u"nobody"_s : to,
            ctl::checkNotify(ways, missingFor(ways), failures(), backups, QDateTime::currentSecsSinceEpoch())};
}

Check checkOffsite(const OffsitePlace &place)
{
    const OffsiteState state = readOffsite();
    return {
        u"off-site"_s,
        u"%1%2"_s.arg(place.repository, state.copied.isEmpty() ? QString() : u", the newest there "_s + state.copied),
        ctl::checkOffsite(place, state, !QStandardPaths::findExecutable(u"restic"_s).isEmpty(),
                          unitProperties(u"corv-offsite-check.timer"_s).value(u"ActiveState"_s) == "active"_L1,
                          QDateTime::currentSecsSinceEpoch())};
}

Check checkHttps(const https::State &state)
{
    const QList<HttpsSite> sites = readHttpsSites(state, QDateTime::currentSecsSinceEpoch());
    return {u"HTTPS"_s, u"%1 site(s)"_s.arg(sites.size()), ctl::checkHttps(state, sites)};
}

Check checkFolders(const QSettings &settings, const QString &destination)
{
    constexpr mode_t kOpen = 0755;
    constexpr mode_t kOwnerOnly = 0700;
    constexpr mode_t kSocket = 0660;
    Check check = {u"folders"_s, u"run, transfer, backups"_s, {}};
    const auto add = [&check](const Place &place) { check.findings += checkFolder(place, lookAt(place.path)); };
    const QString root = u"root"_s;

    const QString socket = textSetting(settings, u"agent/socket"_s, u"/run/corvane/agent.sock"_s);
    const QString group = textSetting(settings, u"agent/socket_group"_s);
    add({socket.section(u'/', 0, -2), root, root, kOpen});
    check.findings += checkSocket({socket, root, group.isEmpty() ? root : group, kSocket}, lookAt(socket));
    add({u"/var/lib/corvane"_s, root, root, kOpen});

    const QString panel = textSetting(settings, u"agent/allowed_user"_s);
    const passwd *user = ::getpwnam((panel.isEmpty() ? root : panel).toLocal8Bit().constData());
    const ::group *own = user ? ::getgrgid(user->pw_gid) : nullptr;
    if (own)
        add({u"/var/lib/corvane/transfer"_s, QString::fromLocal8Bit(user->pw_name),
             QString::fromLocal8Bit(own->gr_name), kOwnerOnly});
    if (lookAt(destination).exists)
        add({destination, root, root, kOwnerOnly});
    return check;
}

Check checkBackups(const QJsonObject &status)
{
    const auto isActive = [](const QString &unit) {
        return unitProperties(unit).value(u"ActiveState"_s) == "active"_L1;
    };
    const bool planned = isActive(u"corv-backup.timer"_s);
    const QJsonArray backups = status.value("backups"_L1).toArray();
    const QString last = backups.first().toObject().value("name"_L1).toString();
    return {u"backups"_s,
            u"%1 in %2%3"_s.arg(QString::number(backups.size()), status.value("destination"_L1).toString(),
                                last.isEmpty() ? QString() : u", the last one "_s + last),
            ctl::checkBackups(status, QDateTime::currentSecsSinceEpoch(), planned) +
                checkVerdict(status, readVerdict(status.value("destination"_L1).toString(), last),
                             QDateTime::currentSecsSinceEpoch()) +
                checkBesideBackups(isActive(u"corv-prove.timer"_s), isActive(u"corv-state.path"_s)) +
                checkCompressor(readCompressor())};
}

Check checkHomes(const QList<hosting::User> &accounts, const QJsonObject &status)
{
    const QHash<QString, qint64> sizes = readHomeSizes(accounts);
    // With the ordinary compressor the trial takes most of a second, and only where it matters.
    const Compressor compressor = readCompressor();
    const qint64 measured = isFast(compressor) || isNearLimit(sizes) ? measureCompressor(compressor) : 0;
    const qint64 bytesPerSecond = measured > 0 ? measured : kCautiousBytesPerSecond;
    Check check = {u"homes"_s, u"sizes (%1 fit), what the web server reaches"_s.arg(largestHome(bytesPerSecond)),
                   ctl::checkHomes(sizes, status, bytesPerSecond)};
    // An account without a site is only half there, which is told where accounts are.
    QStringList served = namesOf(accounts);
    served.removeIf([](const QString &name) { return !QFile::exists(hosting::sitePath(name)); });
    check.findings += checkReach(findOutOfReach(served));
    if (sizes.isEmpty() && !accounts.isEmpty())
        check.findings.append({Level::Note, u"the homes could not be measured within a minute"_s, u"du -sh /home/*"_s});
    return check;
}

} // namespace

QList<Check> examine(const QString &settingsPath)
{
    const qint64 began = QDateTime::currentMSecsSinceEpoch();
    const QSettings settings(settingsPath, QSettings::IniFormat);
    const QString php = hosting::phpVersion();
    QString atWork = accountAtWork();
    Accounts users = readAccounts();
    QString problem;
    std::optional<Databases> databases = readDatabases(&problem);
    NamedParts parts = readNamedParts(phpVersions());
    if (atWork.isEmpty())
        atWork = accountAtWork(); // a request that has begun meanwhile
    if (!atWork.isEmpty()) {
        leaveOut(atWork, &parts, &databases);
        users.accounts.removeIf([&](const hosting::User &user) { return user.name == atWork; });
        users.atWork = atWork;
    }
    const QJsonObject backups = readBackups(backup::load(settings));

    const QList<VirtualHost> hosts = readSites();
    const QList<AccountSite> sites = readAccountSites();

    // Causes before what they cause: what is mended from the top to the bottom is well in the end.
    QList<Check> checks = {checkSettings(settings, settingsPath),
                           checkApache(),
                           checkFiles(users, parts),
                           checkServices(settings, settingsPath, php),
                           checkPhp(php),
                           checkPostgres(databases, problem),
                           checkAccounts(users, sites, php, databases, began),
                           checkSites(users, hosts, sites),
                           checkVisitors(hosts, sites, php),
                           checkSshd(),
                           checkFormer(users),
                           checkQuota(),
                           checkApt(),
                           checkUpdates(),
                           checkFolders(settings, backups.value("destination"_L1).toString()),
                           checkBackups(backups),
                           checkNotify(settings, backups),
                           checkHomes(users.accounts, backups)};
    // Who has no such place is not told of it at each look.
    if (const OffsitePlace place = placeIn(settings); !place.repository.isEmpty())
        checks.append(checkOffsite(place));
    // Likewise.
    if (const std::optional<https::State> https = readHttps())
        checks.append(checkHttps(*https));
    return checks;
}

} // namespace corv::ctl
