#include "ctl/doctor/SiteAddresses.h"

#include "common/Account.h"

#include <QSet>

#include <algorithm>
#include <memory>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kHttps = 443;
constexpr int kLoopbacks = 250; // of 127.0.0.0/8, far more than any server's sites have
const auto kAll = u"*"_s;

QString written(int family, const void *bytes)
{
    char text[INET6_ADDRSTRLEN] = {};
    return ::inet_ntop(family, bytes, text, sizeof text) ? QString::fromLatin1(text) : QString();
}

bool isLoopback(const QString &address)
{
    return address.startsWith("127."_L1) || address == "::1"_L1;
}

bool isOfAccounts(const VirtualHost &host)
{
    return !host.accounts.isEmpty() || !accountOfSite(host.site).isEmpty();
}

// The ports on which visitors reach accounts by any address.
QSet<int> openPorts(const QList<VirtualHost> &hosts, bool isHttpsOn)
{
    QSet<int> ports;
    for (const VirtualHost &host : hosts) {
        for (const QString &listen : host.listens) {
            const Reached place = reachedAt(listen);
            if (isOfAccounts(host) && place.address == kAll)
                ports.insert(place.port);
        }
    }
    // The accounts' sites on HTTPS are in a file of their own.
    if (isHttpsOn && !ports.isEmpty())
        ports.insert(kHttps);
    return ports;
}

QString editorFor(const QString &site)
{
    return u"editor /etc/apache2/sites-enabled/%1 && systemctl reload apache2"_s.arg(shellWord(site + u".conf"_s));
}

// What there is to say of one place of one site; nothing where it takes nobody's visitors.
std::optional<Finding> judge(const QString &site, const Reached &place, const QStringList &own)
{
    if (takesVisitors(place, own)) {
        return Finding{Level::Fault,
                       u"the site %1 takes all visitors of %2 on port %3, those of the accounts too: an address goes "
                       "before *; *:%3 there shares them by name"_s.arg(site, place.address)
                           .arg(place.port),
                       editorFor(site)};
    }
    if (place.isName) {
        return Finding{Level::Note,
                       u"the site %1 is at %2, a name whose address Apache asks for when it starts; where that is this "
                       "server's, it takes the accounts' visitors on port %3"_s.arg(site, place.address)
                           .arg(place.port),
                       editorFor(site)};
    }
    if (isLoopback(place.address)) {
        return Finding{Level::Note,
                       u"the site %1 takes all that comes to %2 on port %3; a proxy on this server that asks there "
                       "does not reach the accounts' sites"_s.arg(site, place.address)
                           .arg(place.port),
                       u"apache2ctl -S"_s};
    }
    return {};
}

} // namespace

QString plainAddress(const QString &text)
{
    const bool isInBrackets = text.startsWith(u'[') && text.endsWith(u']');
    const QByteArray latin = (isInBrackets ? text.mid(1, text.size() - 2) : text).toLatin1();
    in_addr four = {};
    in6_addr six = {};
    if (text == kAll)
        return kAll;
    if (::inet_pton(AF_INET, latin.constData(), &four) == 1)
        return four.s_addr == INADDR_ANY ? kAll : written(AF_INET, &four);
    if (::inet_pton(AF_INET6, latin.constData(), &six) == 1)
        return IN6_IS_ADDR_UNSPECIFIED(&six) ? kAll : written(AF_INET6, &six);
    return {};
}

QStringList outerAddresses()
{
    QStringList all;
    ifaddrs *first = nullptr;
    if (::getifaddrs(&first) != 0)
        return all;
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(first, &::freeifaddrs);
    for (const ifaddrs *one = first; one; one = one->ifa_next) {
        if (!one->ifa_addr || (one->ifa_flags & IFF_LOOPBACK) != 0)
            continue;
        if (one->ifa_addr->sa_family == AF_INET)
            all.append(written(AF_INET, &reinterpret_cast<const sockaddr_in *>(one->ifa_addr)->sin_addr));
        else if (one->ifa_addr->sa_family == AF_INET6)
            all.append(written(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(one->ifa_addr)->sin6_addr));
    }
    return all;
}

Reached reachedAt(const QString &listen)
{
    const qsizetype colon = listen.lastIndexOf(u':');
    const QString address = listen.left(colon);
    const QString plain = plainAddress(address);
    return {plain.isEmpty() ? address : plain, listen.mid(colon + 1).toInt(), plain.isEmpty()};
}

bool takesVisitors(const Reached &place, const QStringList &own)
{
    return place.address != kAll && !place.isName && !isLoopback(place.address) && own.contains(place.address);
}

QList<Finding> checkAddresses(const QList<VirtualHost> &hosts, const QStringList &own, bool isHttpsOn)
{
    const QSet<int> ports = openPorts(hosts, isHttpsOn);
    QList<Finding> findings;
    QSet<QString> told;
    for (const VirtualHost &host : hosts) {
        for (const QString &listen : host.listens) {
            const Reached place = reachedAt(listen);
            const QString key = u"%1 %2 %3"_s.arg(host.site, place.address).arg(place.port);
            if (!ports.contains(place.port) || told.contains(key))
                continue;
            told.insert(key);
            if (const std::optional<Finding> finding = judge(host.site, place, own))
                findings.append(*finding);
        }
    }
    return findings;
}

QHash<int, QString> freeLoopbacks(const QList<VirtualHost> &hosts)
{
    QHash<int, QSet<QString>> taken;
    for (const VirtualHost &host : hosts) {
        for (const QString &listen : host.listens) {
            const Reached place = reachedAt(listen);
            if (isLoopback(place.address))
                taken[place.port].insert(place.address);
        }
    }
    QHash<int, QString> free;
    for (auto port = taken.cbegin(); port != taken.cend(); ++port) {
        for (int i = kLoopbacks; i >= 1; --i) {
            const QString address = u"127.0.0.%1"_s.arg(i);
            if (!port->contains(address))
                free[port.key()] = address;
        }
    }
    return free;
}

} // namespace corv::ctl
