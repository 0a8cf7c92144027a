#include "ctl/commands/Ban.h"

#include "common/Environment.h"
#include "common/TimedRun.h"
#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/remote/Relay.h"
#include "ctl/remote/SshLogin.h"
#include "ctl/screen/Follow.h"

#include <QDeadlineTimer>
#include <QJsonArray>
#include <QRegularExpression>

#include <cstring>
#include <memory>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;
constexpr int kSeenMs = 20'000; // how long a ban that was told to fail2ban may take to show
constexpr int kThereSeconds = 120;
constexpr int kMappedBytes = 12; // of an IPv6 address that stands for an IPv4 one, before that one

// The bytes of an address, four or sixteen; empty for what is none. One that stands for an IPv4 address is that.
QByteArray bytesOf(const QString &text)
{
    const QByteArray latin = text.toLatin1();
    in6_addr six = {};
    in_addr four = {};
    if (latin.size() == text.size() && ::inet_pton(AF_INET, latin.constData(), &four) == 1)
        return {reinterpret_cast<const char *>(&four), sizeof four};
    if (::inet_pton(AF_INET6, latin.constData(), &six) != 1)
        return {};
    const QByteArray bytes(reinterpret_cast<const char *>(&six), sizeof six);
    return IN6_IS_ADDR_V4MAPPED(&six) ? bytes.mid(kMappedBytes) : bytes;
}

QString textOf(const QByteArray &bytes)
{
    char text[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(bytes.size() == sizeof(in_addr) ? AF_INET : AF_INET6, bytes.constData(), text, sizeof text);
    return QString::fromLatin1(text);
}

// Whether visitors from elsewhere can have it: no address of the server's inside, and none of many.
bool isOutside(const QByteArray &bytes)
{
    if (bytes.size() == sizeof(in_addr)) {
        const auto first = static_cast<unsigned char>(bytes[0]);
        return first != 0 && first != IN_LOOPBACKNET && first < 224;
    }
    in6_addr six = {};
    std::memcpy(&six, bytes.constData(), sizeof six);
    return !IN6_IS_ADDR_LOOPBACK(&six) && !IN6_IS_ADDR_UNSPECIFIED(&six) && !IN6_IS_ADDR_MULTICAST(&six);
}

// Whether one of the server's own interfaces has it.
bool isServers(const QByteArray &bytes)
{
    ifaddrs *first = nullptr;
    if (::getifaddrs(&first) != 0)
        return false;
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(first, &::freeifaddrs);
    for (const ifaddrs *one = first; one; one = one->ifa_next) {
        if (!one->ifa_addr)
            continue;
        const auto *const four = reinterpret_cast<const sockaddr_in *>(one->ifa_addr);
        const auto *const six = reinterpret_cast<const sockaddr_in6 *>(one->ifa_addr);
        const bool isFour = one->ifa_addr->sa_family == AF_INET && bytes.size() == sizeof(in_addr);
        const bool isSix = one->ifa_addr->sa_family == AF_INET6 && bytes.size() == sizeof(in6_addr);
        if ((isFour && std::memcmp(&four->sin_addr, bytes.constData(), sizeof(in_addr)) == 0) ||
            (isSix && std::memcmp(&six->sin6_addr, bytes.constData(), sizeof(in6_addr)) == 0))
            return true;
    }
    return false;
}

// Why the address is not banned, empty when it may be.
QString problemWith(const QString &address)
{
    const QByteArray bytes = bytesOf(address);
    if (bytes.isEmpty())
        return u"'%1' is no IPv4 or IPv6 address; networks and names are not banned"_s.arg(address);
    if (!isOutside(bytes))
        return u"%1 is no address that anybody comes from"_s.arg(address);
    if (isServers(bytes))
        return u"%1 is this server's own address"_s.arg(address);
    if (bytes == bytesOf(sshLoginAddress()))
        return u"%1 is the address that you are logged in from: the ban would lock you out"_s.arg(address);
    return {};
}

bool isBanned(const QJsonObject &reply, const QString &jail, const QString &address)
{
    for (const auto &value : reply.value("jails"_L1).toArray()) {
        const QJsonObject one = value.toObject();
        if (one.value("name"_L1).toString() != jail)
            continue;
        for (const auto &banned : one.value("banned"_L1).toArray()) {
            if (bytesOf(banned.toString()) == bytesOf(address))
                return true;
        }
    }
    return false;
}

QStringList jailsIn(const QJsonObject &reply)
{
    QStringList names;
    for (const auto &jail : reply.value("jails"_L1).toArray())
        names.append(jail.toObject().value("name"_L1).toString());
    return names;
}

} // namespace

int addBan(Session &session, const Given &given)
{
    static const QRegularExpression plain(QRegularExpression::anchoredPattern(u"[A-Za-z0-9_-]{1,64}"_s));
    const QString jail = given.has("--jail") ? given.text("--jail") : u"sshd"_s;
    if (session.options.printOnly)
        return fail(kWrongUsage, u"fail2ban itself is told to ban, not the agent"_s);
    if (!plain.match(jail).hasMatch())
        return fail(kWrongUsage, u"'%1' is no name of a jail"_s.arg(jail));
    const bool isHere = session.options.hosts.empty();
    const QByteArray bytes = bytesOf(given.text("ADDRESS"));
    if (const QString problem = problemWith(given.text("ADDRESS")); bytes.isEmpty() || (isHere && !problem.isEmpty()))
        return refuse(session, problem);
    const QString address = textOf(bytes);
    if (!isHere)
        return relayThere(session, {u"ban"_s, u"add"_s, address, u"--jail"_s, jail}, kThereSeconds);
    if (::geteuid() != 0)
        return fail(kWrongUsage, u"fail2ban listens to root alone"_s,
                    u"run it as root: sudo corvctl ban add %1"_s.arg(address));

    const Answer before = ask(session, u"fail2ban.status"_s);
    if (!before.ok())
        return settled(session, before).value_or(kRefused);
    if (!before.reply.value("running"_L1).toBool())
        return refuse(session, u"fail2ban does not run"_s, u"corvctl ban enable installs and starts it"_s);
    if (const QStringList jails = jailsIn(before.reply); !jails.contains(jail))
        return refuse(session, u"fail2ban has no jail %1"_s.arg(jail), u"its jails: "_s + jails.join(", "_L1));
    if (isBanned(before.reply, jail, address))
        return settledWith(session, before, u"%1 is banned by the jail %2 already"_s.arg(address, jail));

    cleanEnvironment();
    const Outcome told = runWithin(kToolMs, u"fail2ban-client"_s, {u"set"_s, jail, u"banip"_s, address});
    if (!told.succeeded)
        return refuse(session,
                      u"fail2ban-client failed: "_s + QString::fromUtf8(told.errors + told.output).simplified());

    const QDeadlineTimer end(kSeenMs);
    bool seen = false;
    const Answer after = askUntil(session, u"fail2ban.status"_s, [&](const QJsonObject &reply) {
        seen = isBanned(reply, jail, address);
        return seen || end.hasExpired();
    });
    if (!after.ok())
        return settled(session, after).value_or(kRefused);
    if (!seen)
        return refuse(session, u"fail2ban was told to ban %1, but does not show it in the jail %2"_s.arg(address, jail),
                      u"journalctl -u fail2ban tells why"_s);
    bool isNumber = false;
    const qint64 seconds =
        runWithin(kToolMs, u"fail2ban-client"_s, {u"get"_s, jail, u"bantime"_s}).output.trimmed().toLongLong(&isNumber);
    const QString time = !isNumber ? QString() : seconds < 0 ? u" for ever"_s : u" for "_s + humanSeconds(seconds);
    return settledWith(session, after, u"%1 is banned by the jail %2%3"_s.arg(address, jail, time));
}

int enableBans(Session &session, const Given &)
{
    const Answer answer = ask(session, u"fail2ban.enable"_s);
    if (!answer.ok())
        return settled(session, answer).value_or(kRefused);

    // Its server answers some seconds after systemd has started it.
    const QDeadlineTimer end(kSeenMs);
    bool isOn = false;
    const Answer last = askUntil(session, u"fail2ban.status"_s, [&](const QJsonObject &reply) {
        isOn = reply.value("running"_L1).toBool() && !reply.value("jails"_L1).toArray().isEmpty();
        return isOn || end.hasExpired();
    });
    if (!last.ok())
        return settled(session, last).value_or(kRefused);
    if (!isOn)
        return refuse(session, u"fail2ban was installed and started, but does not answer"_s,
                      u"journalctl -u fail2ban tells why"_s);
    return settledWith(session, answer,
                       u"fail2ban is on, with these jails: %1"_s.arg(jailsIn(last.reply).join(", "_L1)));
}

} // namespace corv::ctl
