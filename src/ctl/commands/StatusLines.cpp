#include "ctl/commands/Status.h"

#include "common/BackupFolders.h"
#include "ctl/screen/Busy.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>
#include <QStringList>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qint64 kHour = 3600; // in seconds
constexpr qint64 kDay = 24 * kHour;
constexpr qint64 kOldBackup = 36 * kHour; // a night was missed
constexpr qint64 kOldLists = 7 * kDay;    // nothing can be said of updates any more
constexpr qint64 kLeastFreePercent = 10;

QString plural(qint64 number, const QString &one, const QString &many)
{
    return u"%1 %2"_s.arg(QString::number(number), number == 1 ? one : many);
}

// The error of a reply, empty where there is none.
QString errorIn(const QJsonObject &reply)
{
    return reply.value("ok"_L1).toBool() ? QString() : oneSentence(reply.value("error"_L1).toString(u"no reply"_s));
}

StatusLine serverLine(const QJsonObject &info)
{
    if (const QString error = errorIn(info); !error.isEmpty())
        return {u"Server"_s, error, true};
    return {u"Server"_s, u"%1, kernel %2, %3, up %4"_s.arg(
                             info.value("os"_L1).toString(), info.value("kernel"_L1).toString(),
                             plural(info.value("cpus"_L1).toInteger(), u"processor"_s, u"processors"_s),
                             humanSeconds(info.value("uptimeSeconds"_L1).toInteger()))};
}

StatusLine servicesLine(const QJsonObject &reply)
{
    if (const QString error = errorIn(reply); !error.isEmpty())
        return {u"Services"_s, error, true};
    const QJsonArray services = reply.value("services"_L1).toArray();
    if (services.isEmpty())
        return {u"Services"_s, u"systemctl tells nothing of them"_s, true};

    QStringList down;
    QStringList up;
    for (const auto &value : services) {
        const QJsonObject service = value.toObject();
        const QString name = service.value("name"_L1).toString();
        if (service.value("active"_L1).toBool())
            up.append(name);
        else
            down.append(u"%1 is %2"_s.arg(name, service.value("loaded"_L1).toBool() ? service.value("sub"_L1).toString()
                                                                                    : u"not installed"_s));
    }
    const QString running = up.isEmpty() ? QString() : u"%1 running"_s.arg(up.join(", "_L1));
    if (!running.isEmpty())
        down.append(running);
    return {u"Services"_s, down.join("; "_L1), up.size() < services.size()};
}

QList<StatusLine> diskLines(const QJsonObject &reply)
{
    if (const QString error = errorIn(reply); !error.isEmpty())
        return {{u"Disks"_s, error, true}};
    QList<StatusLine> lines;
    for (const auto &value : reply.value("disks"_L1).toArray()) {
        const QJsonObject disk = value.toObject();
        const qint64 total = disk.value("total"_L1).toInteger();
        const qint64 free = disk.value("avail"_L1).toInteger();
        lines.append(
            {lines.isEmpty() ? u"Disks"_s : QString(),
             u"%1: %2 of %3 free"_s.arg(disk.value("mount"_L1).toString(), humanBytes(free), humanBytes(total)),
             free < total / 100 * kLeastFreePercent});
    }
    if (lines.isEmpty())
        lines.append({u"Disks"_s, u"none that the agent knows"_s});
    return lines;
}

// Without the user database, measuring all homes would tell their number, and hold the agent up for minutes.
StatusLine accountsLine(const Replies &replies, std::optional<qsizetype> accounts)
{
    const QJsonObject sizes = replies.value("hosting.usage"_L1).toObject().value("usage"_L1).toObject();
    if (!accounts && sizes.isEmpty())
        return {u"Accounts"_s, u"their number is known on the server alone"_s};

    QString text = QString::number(accounts.value_or(sizes.size()));
    if (!sizes.isEmpty()) {
        qint64 sum = 0;
        for (const auto &bytes : sizes)
            sum += bytes.toInteger();
        text += u", %1 together"_s.arg(humanBytes(sum));
    }
    return {u"Accounts"_s, text};
}

StatusLine firewallLine(const QJsonObject &firewall)
{
    if (const QString error = errorIn(firewall); !error.isEmpty())
        return {u"Firewall"_s, error, true};
    if (!firewall.value("installed"_L1).toBool())
        return {u"Firewall"_s, u"not installed: corvctl firewall enable"_s, true};
    if (!firewall.value("active"_L1).toBool())
        return {u"Firewall"_s, u"off: corvctl firewall enable"_s, true};
    return {u"Firewall"_s,
            u"on, %1, SSH on port %2"_s.arg(plural(firewall.value("rules"_L1).toArray().size(), u"rule"_s, u"rules"_s),
                                            firewall.value("sshPort"_L1).toString())};
}

StatusLine bansLine(const QJsonObject &fail2ban)
{
    if (const QString error = errorIn(fail2ban); !error.isEmpty())
        return {u"Bans"_s, error, true};
    if (!fail2ban.value("installed"_L1).toBool())
        return {u"Bans"_s, u"fail2ban is not installed: corvctl ban enable"_s, true};
    if (!fail2ban.value("running"_L1).toBool())
        return {u"Bans"_s, u"fail2ban does not run: corvctl ban enable"_s, true};

    const QJsonArray jails = fail2ban.value("jails"_L1).toArray();
    QStringList parts;
    for (const auto &value : jails) {
        const QJsonObject jail = value.toObject();
        parts.append(u"%1 %2"_s.arg(jail.value("name"_L1).toString()).arg(jail.value("banned"_L1).toArray().size()));
    }
    return {u"Bans"_s,
            jails.isEmpty() ? u"fail2ban has no jails: corvctl ban enable"_s
                            : u"addresses banned: "_s + parts.join(", "_L1),
            jails.isEmpty()};
}

StatusLine updatesLine(const QJsonObject &reply, qint64 now)
{
    if (const QString error = errorIn(reply); !error.isEmpty())
        return {u"Updates"_s, error, true};
    const qint64 security = reply.value("security"_L1).toInteger();
    const qint64 all = reply.value("updates"_L1).toInteger();
    const bool restart = reply.value("rebootRequired"_L1).toBool();
    const QJsonValue checked = reply.value("lastCheck"_L1);
    const bool outdated = checked.isNull() || now - checked.toInteger() > kOldLists;

    QStringList parts = {all == 0 ? u"none"_s : u"%1, %2 of them for security"_s.arg(all).arg(security)};
    if (reply.value("running"_L1).toBool())
        parts.append(u"an installation runs"_s);
    if (restart)
        parts.append(u"a restart is due"_s);
    if (outdated)
        parts.append(checked.isNull() ? u"never looked for"_s
                                      : u"last looked for %1 ago"_s.arg(humanSeconds(now - checked.toInteger())));
    parts.append(reply.value("automatic"_L1).toBool() ? u"automatic"_s : u"not automatic"_s);
    return {u"Updates"_s, parts.join(", "_L1), security > 0 || restart || outdated};
}

QList<StatusLine> backupLines(const QJsonObject &reply, qint64 now)
{
    if (const QString error = errorIn(reply); !error.isEmpty())
        return {{u"Backup"_s, error, true}};
    const QString running = reply.value("running"_L1).toBool() ? u"; one is being made"_s : QString();
    const QJsonObject last = reply.value("backups"_L1).toArray().first().toObject();
    if (last.isEmpty())
        return {{u"Backup"_s, u"none"_s + running, true}};

    const QString name = last.value("name"_L1).toString();
    const qint64 age = now - std::max(backup::timeOf(name), last.value("created"_L1).toInteger());
    const bool isTold = last.contains("errors"_L1);
    const QJsonArray errors = last.value("errors"_L1).toArray();
    const QString outcome = !isTold            ? u"errors unknown"_s
                            : errors.isEmpty() ? u"no errors"_s
                                               : plural(errors.size(), u"error"_s, u"errors"_s);
    QList<StatusLine> lines = {
        {u"Backup"_s,
         u"%1 ago, %2, %3, %4%5"_s.arg(
             humanSeconds(std::max<qint64>(age, 0)),
             isTold ? plural(last.value("accounts"_L1).toArray().size(), u"account"_s, u"accounts"_s)
                    : u"accounts unknown"_s,
             humanBytes(last.value("bytes"_L1).toInteger()), outcome, running),
         age > kOldBackup || !isTold || !errors.isEmpty()}};
    for (const auto &error : errors)
        lines.append({QString(), oneSentence(error.toString()), true});
    if (reply.value("next"_L1).toString().isEmpty())
        lines.append({QString(), u"no next one is planned: systemctl enable --now corv-backup.timer"_s, true});
    return lines;
}

} // namespace

QList<StatusLine> statusLines(const Replies &replies, std::optional<qsizetype> accounts, qint64 now)
{
    const auto reply = [&replies](QLatin1StringView command) { return replies.value(command).toObject(); };
    const QJsonObject security = reply("security.status"_L1);
    const auto half = [&security](QLatin1StringView name) {
        return security.contains(name) ? security.value(name).toObject() : security;
    };
    QList<StatusLine> lines = {serverLine(reply("system.info"_L1)), servicesLine(reply("services.status"_L1))};
    lines += diskLines(reply("system.disks"_L1));
    lines += accountsLine(replies, accounts);
    lines += firewallLine(half("firewall"_L1));
    lines += bansLine(half("fail2ban"_L1));
    lines += updatesLine(reply("updates.status"_L1), now);
    return lines + backupLines(reply("backup.status"_L1), now);
}

QString newestBackup(const Replies &replies)
{
    const QJsonArray backups = replies.value("backup.status"_L1).toObject().value("backups"_L1).toArray();
    return backups.first().toObject().value("name"_L1).toString();
}

QString statusHeading(const QString &host, const QList<StatusLine> &lines)
{
    const auto count =
        std::count_if(lines.cbegin(), lines.cend(), [](const StatusLine &line) { return line.needsAttention; });
    const bool isAllTold = std::none_of(lines.cbegin(), lines.cend(), [](const auto &line) { return line.isUnknown; });
    if (count == 0)
        return isAllTold ? u"%1 is well"_s.arg(host) : u"%1 is well as far as it tells"_s.arg(host);
    return u"%1 needs attention in %2"_s.arg(host, plural(count, u"place"_s, u"places"_s));
}

} // namespace corv::ctl
