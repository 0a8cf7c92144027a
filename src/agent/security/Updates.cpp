#include "agent/security/Parse.h"
#include "agent/security/Security.h"
#include "common/AtomicFile.h"
#include "common/Fd.h"
#include "common/Paths.h"
#include "common/Run.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QSysInfo>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::security {
namespace {

constexpr mode_t kSettingsMode = 0644;
constexpr mode_t kLogMode = 0666; // less what the process masks
// However large the log has grown, a status reads no more of it.
constexpr qint64 kLogTailBytes = 65'536;

const auto kUpgradeLog = u"/var/log/corvane/upgrade.log"_s;
const auto kListStamp = u"/var/lib/apt/periodic/update-success-stamp"_s;
const auto kRebootFlag = u"/var/run/reboot-required"_s;
const auto kRebootPackages = u"/var/run/reboot-required.pkgs"_s;
const auto kAutomaticSettings = u"/etc/apt/apt.conf.d/20auto-upgrades"_s;

// The switch is the same in both cases but for its value; the lists are refreshed either way.
const auto kAutomatic = uR"(APT::Periodic::Update-Package-Lists "1";
APT::Periodic::Unattended-Upgrade "%1";
)"_s;

// Keeps settings files that the administrator has changed, and takes away what nothing needs any more.
const auto kInstallAll =
    u"apt-get update -q && apt-get -yq -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold "
    "dist-upgrade && apt-get -yq autoremove"_s;
const auto kInstallSecurity = u"apt-get update -q && unattended-upgrade -v"_s;
const auto kSayFinished = u"; echo \"== finished (exit $?)\""_s;

// Opens a regular file; none for anything else. A FIFO in its place would block the agent for ever.
Fd openRegular(const QString &path, int flags)
{
    Fd file(::open(QFile::encodeName(path).constData(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, kLogMode));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return {};
    return file;
}

// A file's last bytes, at most limit of them; all of them where limit is negative, none when it cannot be read.
QByteArray readEnd(const QString &path, qint64 limit = -1)
{
    const Fd descriptor = openRegular(path, O_RDONLY);
    QFile file;
    if (!descriptor || !file.open(descriptor.get(), QIODevice::ReadOnly))
        return {};
    if (limit < 0)
        return file.readAll();
    if (const qint64 size = file.size(); size > limit && !file.seek(size - limit))
        return {};
    return file.read(limit);
}

// When the package lists were last read, in seconds since 1970; null when that is not known.
QJsonValue lastCheck()
{
    struct stat status = {};
    if (::stat(QFile::encodeName(kListStamp).constData(), &status) != 0)
        return QJsonValue::Null;
    return static_cast<qint64>(status.st_mtime);
}

bool upgradeRunning()
{
    return hosting::run(u"systemctl"_s, {u"is-active"_s, u"--quiet"_s, u"corv-upgrade"_s}).isEmpty();
}

// The list is what matters, also of an apt that complains.
QList<Upgrade> upgradable()
{
    QByteArray list;
    (void)hosting::run(u"apt"_s, {u"list"_s, u"--upgradable"_s}, {}, &list);
    return parseUpgradable(list);
}

// Marks in the log where an installation begins. One that cannot be logged is installed all the same.
void logBeginning(QLatin1StringView what)
{
    (void)QDir().mkpath(QFileInfo(kUpgradeLog).path());
    const Fd log = openRegular(kUpgradeLog, O_WRONLY | O_APPEND | O_CREAT);
    if (!log)
        return;
    const QString line =
        u"== %1 installing %2\n"_s.arg(QDateTime::currentDateTime().toString(Qt::ISODate), QString(what));
    (void)writeAll(log.get(), line.toUtf8());
}

} // namespace

Reply updatesStatus(const QJsonObject &)
{
    QJsonArray packages;
    qint64 fromSecurity = 0;
    for (const Upgrade &upgrade : upgradable()) {
        packages.append(QJsonObject{{u"name"_s, upgrade.name},
                                    {u"to"_s, upgrade.to},
                                    {u"from"_s, upgrade.from},
                                    {u"security"_s, upgrade.security}});
        fromSecurity += upgrade.security ? 1 : 0;
    }

    return {{u"ok"_s, true},
            {u"updates"_s, packages.size()},
            {u"security"_s, fromSecurity},
            {u"packages"_s, packages},
            {u"rebootRequired"_s, exists(kRebootFlag)},
            {u"rebootPackages"_s, QJsonArray::fromStringList(parseRebootPackages(readEnd(kRebootPackages)))},
            {u"automatic"_s, parseAutomatic(readEnd(kAutomaticSettings))},
            {u"lastCheck"_s, lastCheck()},
            {u"running"_s, upgradeRunning()},
            {u"log"_s, logTail(readEnd(kUpgradeLog, kLogTailBytes))},
            {u"hostname"_s, QSysInfo::machineHostName()}};
}

Reply updatesRefresh(const QJsonObject &)
{
    if (upgradeRunning())
        return fail(u"an update is running"_s);

    const QString error = hosting::run(u"apt-get"_s, {u"update"_s, u"-q"_s});
    // Only the periodic refresh touches the stamp by itself.
    if (error.isEmpty())
        (void)hosting::run(u"touch"_s, {kListStamp});
    return result(error);
}

Reply updatesInstall(const QJsonObject &args)
{
    const QString mode = args.value("mode"_L1).toString();
    const bool all = mode == "all"_L1;
    if (!all && mode != "security"_L1)
        return fail(u"mode: security or all"_s);
    if (upgradeRunning())
        return fail(u"an update is already running"_s);

    logBeginning(all ? "all updates"_L1 : "security updates"_L1);

    // A unit of its own: no request waits for it, and it outlives a restart of the agent.
    return result(hosting::run(u"systemd-run"_s, {u"--unit=corv-upgrade"_s, u"--collect"_s, u"--quiet"_s,
                                                  u"--setenv=DEBIAN_FRONTEND=noninteractive"_s,
                                                  u"--property=StandardOutput=append:"_s + kUpgradeLog,
                                                  u"--property=StandardError=append:"_s + kUpgradeLog, u"/bin/sh"_s,
                                                  u"-c"_s, (all ? kInstallAll : kInstallSecurity) + kSayFinished}));
}

Reply updatesAutomatic(const QJsonObject &args)
{
    const bool on = args.value("on"_L1).toBool();
    if (!replaceFile(kAutomaticSettings, kAutomatic.arg(on ? 1 : 0).toUtf8(), kSettingsMode))
        return fail(u"cannot write "_s + kAutomaticSettings);
    return result({});
}

Reply reboot(const QJsonObject &args)
{
    if (args.value("confirm"_L1).toString().trimmed() != QSysInfo::machineHostName())
        return fail(u"type the server's name to confirm"_s);
    if (upgradeRunning())
        return fail(u"an update is running; restart when it has finished"_s);

    // A few seconds later, so that the reply gets out before the machine goes down.
    return result(hosting::run(u"systemd-run"_s,
                               {u"--on-active=5"_s, u"--quiet"_s, u"--collect"_s, u"systemctl"_s, u"reboot"_s}));
}

} // namespace corv::security
