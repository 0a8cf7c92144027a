#include "ctl/doctor/Examination.h"

#include "common/Account.h"
#include "common/BackupConfig.h"
#include "common/Config.h"
#include "common/FormerIds.h"
#include "common/Json.h"
#include "common/Packages.h"
#include "common/Pool.h"
#include "common/Quotas.h"
#include "common/System.h"
#include "common/TimedRun.h"
#include "ctl/doctor/Backup.h"
#include "ctl/doctor/Deletions.h"
#include "ctl/doctor/Facts.h"
#include "ctl/doctor/Reach.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QSettings>
#include <QSysInfo>

#include <algorithm>

#include <grp.h>
#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;

Outcome runTool(const QString &program, const QStringList &args)
{
    return runWithin(kToolMs, program, args);
}

QString firstOf(const QByteArray &errors)
{
    return QString::fromUtf8(errors).simplified();
}

Check checkServices(const QSettings &settings, const QString &php)
{
    QStringList services = system::monitoredServices(settings);
    if (!php.isEmpty())
        services.append(u"php%1-fpm"_s.arg(php));

    Check check = {u"services"_s, services.join(u' '), {}};
    for (const auto &value : system::serviceStatus(services)) {
        const QJsonObject service = value.toObject();
        if (service.value("active"_L1).toBool())
            continue;
        const QString name = service.value("name"_L1).toString();
        const QString state =
            service.value("loaded"_L1).toBool() ? service.value("sub"_L1).toString() : u"not installed"_s;
        check.findings.append({Level::Fault, u"the service %1 does not run: it is %2"_s.arg(name, state),
                               u"systemctl start "_s + shellWord(name)});
    }
    return check;
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

// began: when the examination did; what a deletion is working on meanwhile is none that was refused.
Check checkAccounts(const Accounts &users, const QString &php, const std::optional<Databases> &databases, qint64 began)
{
    const QStringList versions = phpVersions();
    Check check = {
        u"accounts"_s, u"%1, PHP %2"_s.arg(users.accounts.size()).arg(php.isEmpty() ? u"not installed"_s : php), {}};
    for (const hosting::User &user : users.accounts)
        check.findings += checkAccount(readAccount(user, versions), php, databases);
    check.findings += checkLeftovers(readNamedParts(versions), databases, namesOf(users.all), namesOf(users.accounts));
    check.findings += checkRefusedDeletions(deletionArchives(kArchives, {}), namesOf(users.accounts), began);
    return check;
}

Check checkFormer()
{
    return {u"ids"_s, u"%1 of deleted accounts kept"_s.arg(hosting::formerIds().users.size()),
            ctl::checkFormer(readFormer())};
}

// The name of the package that brings the kernel's quota modules to some members of the family, and whether it can be
// had. apt-cache keeps what it computes in files of its own, which it is kept from here.
bool hasModulesPackage(const QString &name)
{
    return installed(name) ||
           !runTool(u"apt-cache"_s, {u"-o"_s, u"Dir::Cache::pkgcache="_s, u"-o"_s, u"Dir::Cache::srcpkgcache="_s,
                                     u"show"_s, u"--no-all-versions"_s, name})
                .output.isEmpty();
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
    state.modulesPackage = u"linux-modules-extra-"_s + QSysInfo::kernelVersion();
    state.hasModules = state.enabled || !state.supported || hasModulesPackage(state.modulesPackage);
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
    const bool planned = unitProperties(u"corv-backup.timer"_s).value(u"ActiveState"_s) == "active"_L1;
    const QJsonArray backups = status.value("backups"_L1).toArray();
    const QString last = backups.first().toObject().value("name"_L1).toString();
    return {u"backups"_s,
            u"%1 in %2%3"_s.arg(QString::number(backups.size()), status.value("destination"_L1).toString(),
                                last.isEmpty() ? QString() : u", the last one "_s + last),
            ctl::checkBackups(status, QDateTime::currentSecsSinceEpoch(), planned)};
}

Check checkHomes(const QList<hosting::User> &accounts, const QJsonObject &status)
{
    const QHash<QString, qint64> sizes = readHomeSizes(accounts);
    Check check = {u"homes"_s, u"sizes, what the web server reaches"_s, ctl::checkHomes(sizes, status)};
    check.findings += checkReach(findOutOfReach(namesOf(accounts)));
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
    const Accounts users = readAccounts();
    QString problem;
    const std::optional<Databases> databases = readDatabases(&problem);
    const QJsonObject backups = readBackups(backup::load(settings));

    return {checkServices(settings, php),
            checkApache(),
            checkSshd(),
            checkPostgres(databases, problem),
            checkAccounts(users, php, databases, began),
            checkFormer(),
            checkQuota(),
            checkApt(),
            checkFolders(settings, backups.value("destination"_L1).toString()),
            checkBackups(backups),
            checkHomes(users.accounts, backups)};
}

} // namespace corv::ctl
