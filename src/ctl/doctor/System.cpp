#include "ctl/doctor/System.h"

#include <QRegularExpression>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// What the sites of accounts use: rewrite while they are suspended, the others for PHP.
const QStringList kModules = {u"rewrite"_s, u"proxy"_s, u"proxy_fcgi"_s};
// Keeps the requests for an account within it, whatever its .htaccess says.
const auto kGuardModule = u"corvane"_s;
constexpr auto kJailFile = "/etc/fail2ban/jail.d/zz-sshd-journal.local"_L1;
constexpr auto kLogFormatFile = "/etc/apache2/conf-available/corv-logformat.conf"_L1;

constexpr qint64 kToolSeconds = 600; // after which the agent ends a tool

constexpr qsizetype kMountPointField = 1;
constexpr qsizetype kOptionsField = 3;

QString octal(mode_t mode)
{
    return u"%1"_s.arg(mode, 4, 8, QChar(u'0'));
}

// Nothing where owner, group and mode are as they should be.
QString difference(const Place &wanted, const Found &found)
{
    if (found.owner == wanted.owner && found.group == wanted.group && found.mode == wanted.mode)
        return {};
    return u"%1 is %2:%3 %4 instead of %5:%6 %7"_s.arg(wanted.path, found.owner, found.group, octal(found.mode),
                                                       wanted.owner, wanted.group, octal(wanted.mode));
}

} // namespace

UnitProperties parseProperties(const QByteArray &output)
{
    UnitProperties properties;
    for (const QByteArray &line : output.split('\n')) {
        const qsizetype equals = line.indexOf('=');
        if (equals > 0)
            properties.insert(QString::fromUtf8(line.left(equals)), QString::fromUtf8(line.mid(equals + 1)).trimmed());
    }
    return properties;
}

QList<Finding> checkAgent(const UnitProperties &unit, const QString &problem)
{
    QList<Finding> findings;
    const QString state = unit.value(u"ActiveState"_s);
    if (unit.value(u"LoadState"_s) == "not-found"_L1) {
        findings.append({Level::Fault, u"the agent is not installed as a service"_s, u"apt-get install corv-agent"_s});
    } else if (state == "failed"_L1) {
        findings.append({Level::Fault, u"the agent has failed; journalctl -u corv-agent says why"_s,
                         u"systemctl reset-failed corv-agent; systemctl start corv-agent"_s});
    } else if (state == "activating"_L1 || state == "deactivating"_L1) {
        findings.append({Level::Fault, u"the agent is not ready, its service is %1"_s.arg(state),
                         u"journalctl -u corv-agent -n 20"_s});
    } else if (state != "active"_L1) {
        findings.append({Level::Fault, u"the agent does not run"_s, u"systemctl start corv-agent"_s});
    } else if (!problem.isEmpty()) {
        findings.append(
            {Level::Fault, u"the agent runs but does not answer: "_s + problem, u"systemctl restart corv-agent"_s});
    }

    const QString enabled = unit.value(u"UnitFileState"_s);
    if (enabled == "disabled"_L1 || enabled == "masked"_L1) {
        findings.append({Level::Fault, u"the agent will not come up with the server, its service is "_s + enabled,
                         u"systemctl unmask corv-agent && systemctl enable corv-agent"_s});
    }
    return findings;
}

QStringList parseModules(const QByteArray &output)
{
    static const QRegularExpression pattern(u"^\\s+(\\S+)_module \\((?:static|shared)\\)\\s*$"_s,
                                            QRegularExpression::MultilineOption);
    QStringList modules;
    QRegularExpressionMatchIterator matches = pattern.globalMatch(QString::fromUtf8(output));
    while (matches.hasNext())
        modules.append(matches.next().captured(1));
    return modules;
}

QStringList parseIncludes(const QByteArray &output)
{
    static const QRegularExpression pattern(u"^\\s+\\((?:\\*|\\d+)\\) (/.+)$"_s, QRegularExpression::MultilineOption);
    QStringList files;
    QRegularExpressionMatchIterator matches = pattern.globalMatch(QString::fromUtf8(output));
    while (matches.hasNext())
        files.append(matches.next().captured(1));
    return files;
}

bool definesLogFormat(const QByteArray &configuration, const QString &name)
{
    static const QRegularExpression pattern(u"^\\s*LogFormat\\s+(?:\"(?:[^\"\\\\]|\\\\.)*\"|\\S+)\\s+(\\S+)\\s*$"_s,
                                            QRegularExpression::MultilineOption |
                                                QRegularExpression::CaseInsensitiveOption);
    QRegularExpressionMatchIterator matches = pattern.globalMatch(QString::fromUtf8(configuration));
    while (matches.hasNext()) {
        if (matches.next().captured(1) == name)
            return true;
    }
    return false;
}

QList<Finding> checkApache(const QStringList &modules, bool hasLogFormat)
{
    QList<Finding> findings;
    QStringList missing = kModules;
    missing.removeIf([&modules](const QString &module) { return modules.contains(module); });
    if (!missing.isEmpty()) {
        const QString names = missing.join(u' ');
        findings.append({Level::Fault, u"Apache lacks what the sites of accounts need: "_s + names,
                         u"a2enmod -q %1 && systemctl restart apache2"_s.arg(names)});
    }
    if (!modules.contains(kGuardModule)) {
        findings.append(
            {Level::Fault,
             u"Apache lacks the module %1, so an account's .htaccess reaches the files and the PHP of all others"_s.arg(
                 kGuardModule),
             u"apt-get install -y libapache2-mod-%1 && a2enmod -q %1 && systemctl restart apache2"_s.arg(
                 kGuardModule)});
    }
    if (!hasLogFormat) {
        findings.append(
            {Level::Fault,
             u"Apache knows no log format 'corv', so the access logs of all accounts hold that word alone"_s,
             u"[ -e %1 ] || apt-get install --reinstall -y -o Dpkg::Options::=--force-confmiss corv-agent; "
             "a2enconf -q corv-logformat && systemctl reload apache2"_s.arg(kLogFormatFile)});
    }
    return findings;
}

QList<Finding> checkSshd(const SshdRun &run)
{
    if (!run.isInstalled)
        return {{Level::Fault, u"there is no SSH daemon"_s, u"apt-get install -y openssh-server"_s}};
    if (run.succeeded)
        return {};
    const QString problem =
        u"sshd -T fails, so the firewall would keep port 22 open, whatever the daemon's ports are: "_s +
        QString::fromUtf8(run.errors).simplified();
    if (!run.hasFolder)
        return {{Level::Fault, problem, u"install -d -o root -g root -m 0755 /run/sshd"_s}};
    return {{Level::Fault, problem, u"sshd -t; editor /etc/ssh/sshd_config"_s}};
}

QList<Finding> checkSshdJail(const QByteArray &output)
{
    // Alternatives, each of fields that all have to match. A user writes what he likes into the journal by a program of
    // any name; the unit is the system's word, but where PAM gives no session a unit of its own, what runs in one is in
    // the daemon's. So it has to be root's as well, as which the daemon writes of all that comes before a session.
    const QStringList alternatives =
        QString::fromUtf8(output.mid(output.indexOf('\n') + 1)).simplified().split(u" + "_s);
    const bool isForgeable = std::any_of(alternatives.cbegin(), alternatives.cend(), [](const QString &all) {
        const QStringList fields = all.split(u' ');
        const bool isOfUnit = std::any_of(fields.cbegin(), fields.cend(),
                                          [](const QString &field) { return field.startsWith("_SYSTEMD_UNIT="_L1); });
        return all.contains(u'=') && !(isOfUnit && fields.contains(u"_UID=0"_s));
    });
    if (!isForgeable)
        return {};
    return {
        {Level::Fault,
         u"fail2ban's jail for SSH believes users' programs named sshd too, so that every user can have addresses banned"_s,
         // In the jail and not in its filter: what Debian 13's own jail says prevails over the filter. The file comes
         // after one that may be there with less. One that somebody else wrote stays; both lines in one, with a
         // backslash and an n between them, were written by what was shown here earlier.
         uR"([ -e %1 ] && ! grep -q 'sshd].njournalmatch' %1 || (echo '[sshd]'; echo 'journalmatch = _SYSTEMD_UNIT=ssh.service _UID=0') >%1 && systemctl restart fail2ban)"_s
             .arg(kJailFile)}};
}

QList<Finding> checkLockTimeout(const QString &value)
{
    bool isNumber = false;
    const qint64 seconds = value.toLongLong(&isNumber);
    // A file that is read last prevails over whatever set it otherwise.
    const auto mend = uR"(echo 'DPkg::Lock::Timeout "120";' >/etc/apt/apt.conf.d/)"_s +
                      (value.isEmpty() ? u"60corv-agent"_s : u"zz-corv-agent"_s);
    if (!isNumber || seconds == 0) {
        return {
            {Level::Fault,
             u"apt-get does not wait for the package lock, so that whatever else installs packages makes requests fail"_s,
             mend}};
    }
    if (seconds < 0 || seconds >= kToolSeconds) {
        return {{Level::Fault,
                 u"apt-get waits for the package lock for longer than the ten minutes that the agent gives it"_s,
                 mend}};
    }
    return {};
}

QList<Finding> checkQuota(const QuotaState &state)
{
    if (state.enabled)
        return {};
    if (state.isInFstab && !state.hasPackage) {
        return {{Level::Fault,
                 u"/etc/fstab asks for disk quotas on %1, but the package quota is missing"_s.arg(state.mount),
                 u"apt-get install -y quota && quotaon -u "_s + shellWord(state.mount)}};
    }
    if (state.isInFstab) {
        return {{Level::Fault,
                 u"/etc/fstab asks for disk quotas on %1, but they are off: no limit holds"_s.arg(state.mount),
                 u"quotaon -u "_s + shellWord(state.mount)}};
    }
    if (!state.supported)
        return {};
    if (!state.hasModules) {
        return {
            {Level::Note,
             u"disk quotas are off, and cannot be had: the running kernel has no quota_v2, and there is no package %1"_s
                 .arg(state.modulesPackage),
             u"grep QFMT_V2 /boot/config-$(uname -r)"_s}};
    }
    return {{Level::Note, u"disk quotas are off: nothing keeps one account from filling the disk"_s,
             u"corvctl quota enable"_s}};
}

bool asksForQuotas(const QByteArray &fstab, const QString &mount)
{
    for (const QByteArray &line : fstab.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() > kOptionsField && !fields[0].startsWith('#') && fields[kMountPointField] == mount.toUtf8())
            return fields[kOptionsField].contains("usrjquota=");
    }
    return false;
}

QList<Finding> checkFolder(const Place &wanted, const Found &found)
{
    const QString make = u"install -d -o %1 -g %2 -m %3 %4"_s.arg(shellWord(wanted.owner), shellWord(wanted.group),
                                                                  octal(wanted.mode), shellWord(wanted.path));
    if (!found.exists)
        return {{Level::Fault, u"the folder %1 is missing"_s.arg(wanted.path), make}};
    if (!found.isFolder) {
        return {{Level::Fault, u"%1 is no folder of its own, but a link or a file"_s.arg(wanted.path),
                 u"mv %1 %1.moved && %2"_s.arg(shellWord(wanted.path), make)}};
    }
    if (const QString problem = difference(wanted, found); !problem.isEmpty())
        return {{Level::Fault, u"the folder "_s + problem, make}};
    return {};
}

QList<Finding> checkSocket(const Place &wanted, const Found &found)
{
    if (!found.exists)
        return {}; // why there is none is told with the agent
    const QString problem = found.isSocket ? difference(wanted, found) : wanted.path + u" is no socket"_s;
    if (problem.isEmpty())
        return {};
    return {{Level::Fault, u"the agent's "_s + problem, u"systemctl restart corv-agent"_s}};
}

} // namespace corv::ctl
