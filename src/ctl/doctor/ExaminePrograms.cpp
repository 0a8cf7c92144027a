#include "ctl/doctor/ExaminedParts.h"

#include "common/Packages.h"
#include "common/Pool.h"
#include "common/StoppedPhp.h"
#include "common/System.h"
#include "common/TimedRun.h"
#include "ctl/Turn.h"
#include "ctl/doctor/Facts.h"
#include "ctl/doctor/OpenFiles.h"
#include "ctl/doctor/OutOfMemory.h"
#include "ctl/doctor/PhpPools.h"
#include "ctl/doctor/Services.h"
#include "ctl/php/MoveJournal.h"

#include <QSettings>

#include <algorithm>

#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;

Outcome runTool(const QString &program, const QStringList &args)
{
    return runWithin(kToolMs, program, args);
}

// The users of the processes of PHP that are stopped, each once.
QStringList whoStoppedPhp()
{
    QStringList names;
    for (const php::StoppedProcess &process : php::stoppedProcesses()) {
        const passwd *const user = ::getpwuid(process.user);
        names.append(user ? QString::fromLocal8Bit(user->pw_name) : QString::number(process.user));
    }
    names.sort();
    names.removeDuplicates();
    return names;
}

// What is in the way of each FPM that does not run. Of those that do it is what they serve.
LeftSockets leftSockets()
{
    QString problem;
    const QList<PhpPools> versions = readPhpPools(&problem);
    LeftSockets left;
    for (const PhpPools &pools : versions)
        left.insert(u"php%1-fpm"_s.arg(pools.version), socketsLeftBy(pools.version, versions));
    return left;
}

QString firstOf(const QByteArray &errors)
{
    return QString::fromUtf8(errors).simplified();
}

// The services of those PHP versions whose FPM is there and has no pool.
QStringList fpmsWithoutPool()
{
    QStringList services;
    for (const QString &version : phpVersions()) {
        if (isPhpVersion(version) && isFpmInstalled(version) && !hasPools(version))
            services.append(u"php%1-fpm"_s.arg(version));
    }
    return services;
}

} // namespace

Check examineServices(const QSettings &settings, const QString &path, const QString &php)
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
            checkServices(found, php, isKnown ? QStringList() : knownServices(), {path, watched}, leftSockets(),
                          fpmsWithoutPool()) +
                checkOutOfMemory(found)};
}

Check examineApache()
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
    check.findings = checkApache(parseModules(runTool(u"apache2ctl"_s, {u"-M"_s}).output), hasLogFormat);
    if (const std::optional<OpenFiles> open = readOpenFiles(u"apache2"_s))
        check.findings += checkApacheFiles(*open);
    return check;
}

Check examinePhp(const QString &inForce)
{
    Check check = {u"PHP"_s, {}, {}};
    QStringList seen;
    for (const QString &version : phpVersions()) {
        const std::optional<PhpState> state = readPhp(version);
        if (!state)
            continue;
        seen.append(version);
        check.findings += checkPhp(*state);
    }
    QString problem;
    const QList<PhpPools> pools = readPhpPools(&problem);
    const std::optional<MoveJournal> cutOff = isTurnTaken(kPhpLock) ? std::nullopt : readMove();
    check.findings += checkPhpPools(pools, inForce, cutOff ? QStringList{cutOff->from, cutOff->to} : QStringList());
    if (!seen.isEmpty()) {
        const QString state = unitProperties(u"corv-php-watch.service"_s).value(u"ActiveState"_s);
        check.findings += checkStoppedPhp(whoStoppedPhp(), state.isEmpty() || state == "active"_L1);
    }
    check.seen = seen.isEmpty() ? u"not installed"_s : u"cache of "_s + seen.join(u' ');
    return check;
}

Check examineSshd()
{
    const Outcome run = runTool(u"sshd"_s, {u"-T"_s});
    const bool isInstalled = run.finished || !run.errors.isEmpty();
    Check check = {u"sshd"_s, u"sshd -T"_s,
                   checkSshd({isInstalled, run.succeeded, run.errors, lookAt(u"/run/sshd"_s).isFolder})};
    if (hasVolatileJournal())
        check.findings += checkSshdJail(runTool(u"fail2ban-client"_s, {u"get"_s, u"sshd"_s, u"journalmatch"_s}).output);
    return check;
}

Check examinePostgres(const std::optional<Databases> &databases, const QString &problem)
{
    Check check = {u"PostgreSQL"_s, {}, {}};
    QList<PostgresVersion> programs = readClientVersions();
    if (databases) {
        constexpr int kMajorFactor = 10'000;
        programs.prepend({u"the server"_s, databases->version / kMajorFactor, databases->version % kMajorFactor});
        check.findings += checkPanelDatabase(*databases) + checkSharedDatabases(*databases) +
                          checkPostgresServers(databases->version / kMajorFactor, readServerVersions());
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

} // namespace corv::ctl
