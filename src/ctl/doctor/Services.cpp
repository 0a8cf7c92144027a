#include "ctl/doctor/Services.h"

#include "common/TimedRun.h"
#include "ctl/doctor/Settings.h"
#include "ctl/doctor/SiteFacts.h"

#include <QDir>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;
constexpr qint64 kLargestStartFile = 65'536;
constexpr auto kClusters = "/etc/postgresql"_L1;
constexpr auto kComesUp = "/etc/systemd/system/multi-user.target.wants"_L1;

QStringList foldersIn(const QString &folder)
{
    return QDir(folder).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
}

// Whether Debian's scripts start a cluster with the server: its file start.conf says so, or is missing.
bool comesUp(const QString &cluster)
{
    const std::optional<QByteArray> text = readUpTo(cluster + u"/start.conf"_s, kLargestStartFile);
    if (!text)
        return true;
    for (const QByteArray &raw : text->split('\n')) {
        const QByteArray line = raw.split('#').first().trimmed();
        if (!line.isEmpty())
            return line == "auto";
    }
    return true;
}

// Whether its package may simply not be installed, which is no error of the settings.
bool isOfPackages(const QString &service, const QString &php)
{
    return service == "apache2"_L1 || service == "postgresql"_L1 || service == u"php%1-fpm"_s.arg(php);
}

// An FPM asks whether anybody listens at a socket that is there, and gives up when its backlog takes the question: any
// process that a page once started may have kept it. At a name that is missing it asks nobody.
QString removal(const QStringList &sockets)
{
    return sockets.isEmpty() ? QString() : u"rm -f %1; "_s.arg(sockets.join(u' '));
}

Finding noSuchUnit(const QString &service, const QStringList &known, const Watched &watched)
{
    static const QRegularExpression plain(QRegularExpression::anchoredPattern(u"[A-Za-z0-9@_.-]+"_s));
    const QString meant = nearestName(service, known);
    // Where the name stands within another one of the list, no simple command changes the right one.
    const auto holders = std::count_if(watched.services.cbegin(), watched.services.cend(),
                                       [&](const QString &other) { return other.contains(service); });
    if (meant.isEmpty() || holders > 1 || !plain.match(service).hasMatch()) {
        return {Level::Fault, u"the settings watch the service %1, but no unit has that name"_s.arg(service),
                u"editor "_s + shellWord(watched.path)};
    }
    return {
        Level::Fault,
        u"the settings watch the service %1, but no unit has that name; %2 is meant"_s.arg(service, meant),
        u"sed -i %1 %2 && systemctl restart corv-agent"_s.arg(
            shellWord(u"/^[[:space:]]*services[[:space:]]*=/s/%1/%2/"_s.arg(service, meant)), shellWord(watched.path))};
}

// An FPM that no start helps. The one in force gets its pool of the package's back, since an account that is made would
// bring one, but is undone where that FPM does not run.
Finding withoutPool(const QString &service, const QString &php)
{
    const QString version = service.mid(3).chopped(4); // "phpVERSION-fpm"
    if (version != php)
        return {Level::Fault, u"PHP %1 has no pool, so that its FPM cannot start"_s.arg(version),
                u"systemctl disable %1; systemctl reset-failed %1"_s.arg(service)};
    const QString own = u"/etc/php/%1/fpm/pool.d/www.conf"_s.arg(version);
    return {Level::Fault,
            u"PHP %1 has no pool, so that its FPM cannot start and no account can be made; %2 is to be put back"_s.arg(
                version, own),
            u"[ -e %1 ] || apt-get install --reinstall -y -o Dpkg::Options::=--force-confmiss %2; systemctl "
            u"reset-failed %2; "
            "systemctl restart %2"_s.arg(own, service)};
}

} // namespace

QStringList neededServices(const QString &php)
{
    QStringList services;
    if (!php.isEmpty())
        services.append(u"php%1-fpm"_s.arg(php));
    // A package that was removed and not purged leaves its link behind, which leads nowhere and starts nothing.
    for (const QString &unit : QDir(kComesUp).entryList({u"php*-fpm.service"_s}, QDir::Files)) {
        if (const QString name = unit.chopped(8); !services.contains(name))
            services.append(name);
    }
    for (const QString &version : foldersIn(kClusters)) {
        for (const QString &cluster : foldersIn(kClusters + u'/' + version)) {
            if (comesUp(kClusters + u'/' + version + u'/' + cluster))
                services.append(u"postgresql@%1-%2"_s.arg(version, cluster));
        }
    }
    return services;
}

QList<Service> readServices(const QStringList &names)
{
    if (names.isEmpty())
        return {};
    const QStringList show = {u"show"_s, u"--no-pager"_s, u"-p"_s, u"LoadState,ActiveState,SubState,OOMPolicy"_s,
                              u"--"_s};
    const QByteArray output = runWithin(kToolMs, u"systemctl"_s, show + names).output;
    QList<Service> services;
    QByteArray block;
    // One block of lines for each, in their order, parted by empty lines.
    for (const QByteArray &line : (output + '\n').split('\n')) {
        if (!line.trimmed().isEmpty()) {
            block += line + '\n';
        } else if (!block.isEmpty() && services.size() < names.size()) {
            services.append({names[services.size()], parseProperties(block)});
            block.clear();
        }
    }
    return services;
}

QStringList knownServices()
{
    QStringList known;
    for (const QString &folder :
         {u"/etc/systemd/system"_s, u"/run/systemd/generator"_s, u"/run/systemd/generator.late"_s,
          u"/usr/lib/systemd/system"_s, u"/lib/systemd/system"_s}) {
        for (const QString &unit : QDir(folder).entryList({u"*.service"_s}, QDir::Files | QDir::System)) {
            if (const QString name = unit.chopped(8); !known.contains(name))
                known.append(name);
        }
    }
    return known;
}

QList<Finding> checkServices(const QList<Service> &services, const QString &php, const QStringList &known,
                             const Watched &watched, const LeftSockets &left, const QStringList &poolless)
{
    QList<Finding> findings;
    for (const auto &[name, unit] : services) {
        const QString state = unit.value(u"ActiveState"_s);
        const bool exists = unit.value(u"LoadState"_s) != "not-found"_L1;
        if (state == "active"_L1 || state == "reloading"_L1)
            continue;
        const QString problem = u"the service %1 does not run: it is %2"_s.arg(name, exists ? unit.value(u"SubState"_s)
                                                                                            : u"not installed"_s);
        if (!exists && !isOfPackages(name, php)) {
            findings.append(noSuchUnit(name, known, watched));
        } else if (!exists) {
            findings.append({Level::Fault, problem, u"apt-get install -y "_s + shellWord(name)});
        } else if (poolless.contains(name)) {
            findings.append(withoutPool(name, php));
        } else {
            // One that failed too often in a row is not started before it is told to forget that.
            const QString forget =
                state == "failed"_L1 ? u"systemctl reset-failed %1; "_s.arg(shellWord(name)) : QString();
            findings.append(
                {Level::Fault, problem, forget + removal(left.value(name)) + u"systemctl start "_s + shellWord(name)});
        }
    }
    return findings;
}

} // namespace corv::ctl
