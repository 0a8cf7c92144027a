#include "ctl/doctor/Visitors.h"

#include "common/Site.h"
#include "ctl/doctor/SiteAddresses.h"
#include "ctl/doctor/SiteFacts.h"

#include <QDeadlineTimer>
#include <QHash>
#include <QSet>
#include <QThread>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qsizetype kMostVisits = 1000;
constexpr qsizetype kShownNames = 3;
constexpr int kReloadMs = 3'000;
constexpr int kBetweenMs = 100;
constexpr int kBadGateway = 502;
constexpr int kUnavailable = 503;
constexpr int kGatewayTimeout = 504;
constexpr int kLowestError = 500;
constexpr auto kShowServersLog = "tail -n 20 /var/log/apache2/error.log | cat -v"_L1;
const auto kLoopback = u"127.0.0.1"_s;
const auto kNobody = u"localhost"_s; // the name for a site that has none

// The virtual hosts that are asked, in the order of the visits.
QList<VirtualHost> askedOf(const QList<VirtualHost> &hosts)
{
    QList<VirtualHost> asked;
    QSet<QString> names;
    for (const VirtualHost &host : hosts) {
        if (host.isEncrypted || host.listens.isEmpty() || host.listens[0].endsWith(":443"_L1))
            continue;
        const QString key = host.listens[0] + u' ' + host.names.value(0);
        if (names.contains(key) || asked.size() >= kMostVisits)
            continue;
        names.insert(key);
        asked.append(host);
    }
    return asked;
}

// loopbacks are those by which sites are reached that have no address of their own.
Visit visitTo(const VirtualHost &host, const QHash<int, QString> &loopbacks)
{
    const QString &listen = host.listens[0];
    const qsizetype colon = listen.lastIndexOf(u':');
    QString address = listen.left(colon);
    if (address.startsWith(u'[') && address.endsWith(u']'))
        address = address.mid(1, address.size() - 2);
    const int port = listen.mid(colon + 1).toInt();
    const bool isAny = address == "*"_L1 || address == "0.0.0.0"_L1;
    return {isAny                ? loopbacks.value(port, kLoopback)
            : address == "::"_L1 ? u"::1"_s
                                 : address,
            port, host.names.value(0, kNobody)};
}

Sight judge(const Visited &visited, bool isAccounts, bool isSuspended)
{
    if (!visited.wasAsked)
        return Sight::NotAsked;
    const bool isGateways = visited.status == kBadGateway || visited.status == kGatewayTimeout;
    if (visited.status == 0 || isGateways)
        return Sight::Broken;
    if (isSuspended)
        return visited.status == kUnavailable ? Sight::Suspended : Sight::Open;
    if (isAccounts && visited.status == kUnavailable && visited.isSuspensions)
        return Sight::Stale;
    if (visited.status == kUnavailable)
        return visited.isServersOwnPage ? Sight::Broken : Sight::Well; // a site may be closed for work on it
    return visited.status >= kLowestError ? Sight::OwnError : Sight::Well;
}

// Sites that share a trouble, by what is seen of them.
struct Group
{
    QString seen;
    int port = 80;
    bool isAccounts = false;
    bool isLate = false;
    bool isRefused = false; // nothing listens there at all, or nothing of HTTP
    QStringList names;
};

QList<Group> groupsOf(const QList<SiteSight> &sights, Sight sight)
{
    QList<Group> groups;
    for (const SiteSight &one : sights) {
        if (one.sight != sight)
            continue;
        const QString seen = seenText(one);
        auto group = std::find_if(groups.begin(), groups.end(), [&](const Group &other) {
            // A port without a server is the same for all.
            const bool isServers = one.status == 0 && !one.isLate;
            return other.seen == seen && other.port == one.port && (isServers || other.isAccounts == one.isAccounts);
        });
        if (group == groups.end())
            group = groups.insert(groups.end(),
                                  {seen, one.port, one.isAccounts, one.isLate, one.status == 0 && !one.isLate, {}});
        group->names.append(one.host);
    }
    return groups;
}

// Under the name that was asked for, which is an account's domain then, and holds plain characters.
QString showLog(const QString &domain)
{
    return u"tail -n 20 /var/log/apache2/%1-error.log | cat -v"_s.arg(domain);
}

} // namespace

QList<Visit> visitsTo(const QList<VirtualHost> &hosts)
{
    return visitsTo(hosts, hosts);
}

QList<Visit> visitsTo(const QList<VirtualHost> &hosts, const QList<VirtualHost> &all)
{
    const QHash<int, QString> loopbacks = freeLoopbacks(all);
    QList<Visit> visits;
    for (const VirtualHost &host : askedOf(hosts))
        visits.append(visitTo(host, loopbacks));
    return visits;
}

QList<SiteSight> sightsOf(const QList<VirtualHost> &hosts, const QList<AccountSite> &accounts,
                          const QList<Visited> &visited)
{
    QSet<QString> own;
    QSet<QString> suspended;
    for (const AccountSite &account : accounts) {
        own.insert(hosting::siteName(account.name));
        if (account.suspended)
            suspended.insert(hosting::siteName(account.name));
    }
    QList<SiteSight> sights;
    for (const VirtualHost &host : askedOf(hosts)) {
        const Visited one = visited.value(sights.size());
        const Visit visit = visitTo(host, {});
        const bool isAccounts = own.contains(host.site);
        sights.append({host.site, visit.host, visit.port, isAccounts, one.status,
                       judge(one, isAccounts, suspended.contains(host.site)), one.isLate, one.problem});
    }
    return sights;
}

QList<SiteSight> lookAt(const QList<VirtualHost> &hosts, const QList<VirtualHost> &all,
                        const QList<AccountSite> &accounts, int milliseconds)
{
    const QDeadlineTimer end(kReloadMs);
    for (;;) {
        const QList<SiteSight> sights = sightsOf(hosts, accounts, visit(visitsTo(hosts, all), milliseconds));
        const bool isSettled = std::none_of(sights.cbegin(), sights.cend(), [](const SiteSight &one) {
            return one.sight == Sight::Open || one.sight == Sight::Stale;
        });
        if (isSettled || end.hasExpired())
            return sights;
        QThread::msleep(kBetweenMs);
    }
}

QList<SiteSight> lookAtSites(int milliseconds)
{
    return lookAtSites(milliseconds, [](const QString &) { return true; });
}

QList<SiteSight> lookAtSites(int milliseconds, const std::function<bool(const QString &)> &wanted)
{
    const QList<VirtualHost> all = readSites();
    QList<VirtualHost> hosts = all;
    hosts.removeIf([&](const VirtualHost &host) { return !wanted(host.site); });
    return lookAt(hosts, all, readAccountSites(), milliseconds);
}

QString seenText(const SiteSight &sight)
{
    switch (sight.status) {
    case 0:
        return sight.problem;
    case 500:
        return u"500 Internal Server Error"_s;
    case kBadGateway:
        return u"502 Bad Gateway"_s;
    case kUnavailable:
        return u"503 Service Unavailable"_s;
    case kGatewayTimeout:
        return u"504 Gateway Timeout"_s;
    default:
        return u"status %1"_s.arg(sight.status);
    }
}

QString someOf(const QStringList &names)
{
    if (names.size() <= kShownNames + 1)
        return names.join(", "_L1);
    return u"%1 and %2 more"_s.arg(names.first(kShownNames).join(", "_L1)).arg(names.size() - kShownNames);
}

QList<Finding> checkSights(const QList<SiteSight> &sights, const QString &php)
{
    QList<Finding> findings;
    for (const Group &group : groupsOf(sights, Sight::Broken)) {
        const QString problem = u"visitors of %1 see %2"_s.arg(someOf(group.names), group.seen);
        if (group.isRefused) {
            findings.append({Level::Fault,
                             u"visitors of %1 get no page from port %2: %3"_s.arg(someOf(group.names))
                                 .arg(group.port)
                                 .arg(group.seen),
                             u"apache2ctl configtest && systemctl restart apache2"_s});
        } else if (group.isAccounts && group.isLate) {
            findings.append({Level::Fault, u"visitors of %1 wait: %2"_s.arg(someOf(group.names), group.seen),
                             showLog(group.names[0])});
        } else if (group.isAccounts && !php.isEmpty()) {
            findings.append({Level::Fault, problem, u"systemctl restart php%1-fpm"_s.arg(php)});
        } else {
            findings.append({Level::Fault, problem, QString(kShowServersLog)});
        }
    }
    for (const Group &group : groupsOf(sights, Sight::OwnError)) {
        findings.append({Level::Note,
                         u"visitors of %1 see %2, which the site itself makes"_s.arg(someOf(group.names), group.seen),
                         group.isAccounts ? showLog(group.names[0]) : QString(kShowServersLog)});
    }
    for (const Group &group : groupsOf(sights, Sight::Stale)) {
        findings.append(
            {Level::Fault,
             u"visitors of %1 are told that it is suspended, which it is not any more"_s.arg(someOf(group.names)),
             u"apache2ctl configtest && systemctl reload apache2"_s});
    }
    for (const SiteSight &one : sights) {
        if (one.sight == Sight::Open)
            findings.append(
                {Level::Fault,
                 u"the site %1 is suspended, but its visitors still get an answer: status %2"_s.arg(one.site).arg(
                     one.status),
                 u"apache2ctl configtest && systemctl reload apache2"_s});
    }
    return findings;
}

} // namespace corv::ctl
