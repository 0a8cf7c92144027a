#include "ctl/doctor/ExaminedParts.h"

#include "common/BackupConfig.h"
#include "common/Config.h"
#include "common/Packages.h"
#include "common/Quotas.h"
#include "common/RequiredMount.h"
#include "common/TimedRun.h"
#include "ctl/doctor/Disks.h"
#include "ctl/doctor/Facts.h"
#include "ctl/doctor/Firewall.h"
#include "ctl/doctor/Https.h"
#include "ctl/doctor/Modules.h"
#include "ctl/doctor/Notify.h"
#include "ctl/doctor/Settings.h"
#include "ctl/doctor/Updates.h"

#include <QDateTime>
#include <QDir>
#include <QSettings>
#include <QThread>

#include <grp.h>
#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;
constexpr qint64 kLargestText = 1'048'576;
constexpr int kChanges = 6;
constexpr unsigned long kChangeMs = 500;

} // namespace

Check examineSettings(const QSettings &settings, const QString &path)
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
            checkSettings(settings.allKeys(), path) +
                checkDestination(destination, point,
                                 isMounted(point, textOf(u"/proc/self/mounts"_s).value_or(QByteArray())))};
}

Check examineQuota()
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
    return {u"quotas"_s, u"%1, %2 on %3"_s.arg(word, state.type, state.mount), checkQuota(state)};
}

Check examineDisks()
{
    return {u"disks"_s, u"room for files"_s, checkDisks(readDisks())};
}

QList<Check> examineFirewall()
{
    std::optional<FirewallState> state = readFirewall();
    // Somebody may be changing it right now.
    for (int change = 0; state && !isAsKept(*state) && change < kChanges; ++change) {
        QThread::msleep(kChangeMs);
        state = readFirewall();
    }
    if (!state)
        return {};
    return {{u"firewall"_s, state->isOn ? u"on"_s : u"off"_s, checkFirewall(*state)}};
}

Check examineApt()
{
    const QByteArray value =
        runWithin(kToolMs, u"apt-config"_s, {u"dump"_s, u"--format"_s, u"%v"_s, u"DPkg::Lock::Timeout"_s}).output;
    const QString seconds = QString::fromUtf8(value).trimmed();
    return {u"apt"_s, u"waits %1 s for its lock"_s.arg(seconds.isEmpty() ? u"0"_s : seconds),
            checkLockTimeout(seconds)};
}

Check examineUpdates()
{
    const bool isOn = isAutomatic();
    return {u"updates"_s, isOn ? u"automatic"_s : u"not automatic"_s,
            isOn ? checkAutomatic(readAutomatic()) : QList<Finding>()};
}

Check examineFolders(const QSettings &settings, const QString &destination)
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

Check examineNotify(const QSettings &settings, const QJsonObject &backups)
{
    const Ways ways = waysIn(settings);
    const QString to = (ways.mail + ways.command.mid(0, 1)).join(", "_L1);
    return {u"notify"_s, to.isEmpty() ? u"nobody"_s : to,
            checkNotify(ways, missingFor(ways), failures(), backups, QDateTime::currentSecsSinceEpoch())};
}

Check examineHttps(const https::State &state)
{
    const QList<HttpsSite> sites = readHttpsSites(state, QDateTime::currentSecsSinceEpoch());
    return {u"HTTPS"_s, u"%1 site(s)"_s.arg(sites.size()), checkHttps(state, sites)};
}

} // namespace corv::ctl
