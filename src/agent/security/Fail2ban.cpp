#include "agent/security/Address.h"
#include "agent/security/Parse.h"
#include "agent/security/Security.h"
#include "common/AtomicFile.h"
#include "common/Packages.h"
#include "common/Run.h"

#include <QJsonArray>
#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::security {
namespace {

constexpr mode_t kSettingsMode = 0644;

const auto kFilterPath = u"/etc/fail2ban/filter.d/corv-web.conf"_s;
const auto kJailPath = u"/etc/fail2ban/jail.d/corvane.local"_s;

constexpr QByteArrayView kFilter = R"(# Managed by Corvane
[INCLUDES]
before = common.conf

[Definition]
_daemon = corv-web
failregex = ^%(__prefix_line)slogin failed for .* from <HOST>$
ignoreregex =
)";

// Debian writes no log files of sign-ins any more unless rsyslog is installed: both jails read the journal.
constexpr QByteArrayView kJails = R"(# Managed by Corvane: SSH and the panel's sign-in. Addresses that fail 5 times in
# 10 minutes are blocked for an hour. Unban from Security in the panel.
[DEFAULT]
ignoreip = 127.0.0.1/8 ::1
bantime = 1h
findtime = 10m
maxretry = 5

[sshd]
enabled = true
backend = systemd

[corv-web]
enabled = true
backend = systemd
filter = corv-web
journalmatch = _SYSTEMD_UNIT=corv-web.service
port = http,https
)";

QString fail2ban(const QStringList &args, QByteArray *out = nullptr)
{
    return hosting::run(u"fail2ban-client"_s, args, {}, out);
}

// One jail as the server tells it; one that it cannot tell shows as one without addresses.
QJsonObject describeJail(const QString &name)
{
    QByteArray status;
    (void)fail2ban({u"status"_s, name}, &status);
    const Jail jail = parseJail(status);
    return {{u"name"_s, name},
            {u"failed"_s, jail.failed},
            {u"totalBanned"_s, jail.totalBanned},
            {u"banned"_s, QJsonArray::fromStringList(jail.banned)}};
}

bool replaceSettings(const QString &path, QByteArrayView text)
{
    return replaceFile(path, text.toByteArray(), kSettingsMode);
}

} // namespace

Reply fail2banStatus(const QJsonObject &)
{
    const bool there = installed(u"fail2ban"_s);
    Reply reply = {{u"ok"_s, true}, {u"installed"_s, there}};
    if (!there)
        return reply;

    QByteArray status;
    const bool running = fail2ban({u"status"_s}, &status).isEmpty();
    reply.insert(u"running"_s, running);
    if (!running)
        return reply;

    QJsonArray jails;
    for (const QString &name : parseJailList(status))
        jails.append(describeJail(name));
    reply.insert(u"jails"_s, jails);
    return reply;
}

Reply fail2banEnable(const QJsonObject &)
{
    // The second package is what reads the journal; fail2ban only recommends it.
    if (const QString error = aptInstall({u"fail2ban"_s, u"python3-systemd"_s}); !error.isEmpty())
        return fail(error);

    if (!replaceSettings(kFilterPath, kFilter))
        return fail(u"cannot write "_s + kFilterPath);
    if (!replaceSettings(kJailPath, kJails))
        return fail(u"cannot write "_s + kJailPath);

    if (const QString error = hosting::run(u"systemctl"_s, {u"enable"_s, u"fail2ban"_s}); !error.isEmpty())
        return fail(error);
    // Not a reload: a server that is stopped starts too.
    return result(hosting::run(u"systemctl"_s, {u"restart"_s, u"fail2ban"_s}));
}

Reply fail2banUnban(const QJsonObject &args)
{
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(u"[A-Za-z0-9_-]{1,64}"_s));
    const QString jail = args.value("jail"_L1).toString();
    const QString address = args.value("ip"_L1).toString();
    if (!pattern.match(jail).hasMatch() || !isAddress(address))
        return fail(u"bad jail or address"_s);

    // A name that begins with a dash is no option: the client reads options only before its first word.
    return result(fail2ban({u"set"_s, jail, u"unbanip"_s, address}));
}

} // namespace corv::security
