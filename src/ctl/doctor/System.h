#pragma once

#include "ctl/doctor/Finding.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

#include <sys/types.h>

namespace corv::ctl {

// The properties NAME=VALUE that "systemctl show" prints for one unit.
using UnitProperties = QHash<QString, QString>;
UnitProperties parseProperties(const QByteArray &output);

// What is wrong with the agent's unit, where problem says why its socket does not answer (empty when it does).
QList<Finding> checkAgent(const UnitProperties &unit, const QString &problem);

// The modules in the output of "apache2ctl -M", without the "_module" at their ends.
QStringList parseModules(const QByteArray &output);

// The paths of the configuration files in the output of "apache2ctl -t -D DUMP_INCLUDES".
QStringList parseIncludes(const QByteArray &output);

// Whether a text of Apache's configuration defines the log format of that name.
bool definesLogFormat(const QByteArray &configuration, const QString &name);

// What the sites of accounts need of Apache: its modules, and the log format "corv".
QList<Finding> checkApache(const QStringList &modules, bool hasLogFormat);

// What became of "sshd -T", from whose answer the agent learns the ports to keep open: whether it could be started and
// succeeded, and what it complained of. hasFolder tells whether /run/sshd is there.
struct SshdRun
{
    bool isInstalled = false;
    bool succeeded = false;
    QByteArray errors;
    bool hasFolder = false;
};
QList<Finding> checkSshd(const SshdRun &run);

// Whether local users can have addresses banned by fail2ban's jail for SSH, where output is what "fail2ban-client get
// sshd journalmatch" prints, on a server whose journal is volatile and so in one with that of its users.
QList<Finding> checkSshdJail(const QByteArray &output);

// Whether apt-get waits for the lock of the packages, where value is what apt-config calls DPkg::Lock::Timeout: long
// enough for a short use of it, but not past the agent's own limit of ten minutes.
QList<Finding> checkLockTimeout(const QString &value);

// Disk quotas: what the file system with the homes can do and does.
struct QuotaState
{
    QString mount;
    QString type;           // of its file system
    bool supported = false; // whether the agent can switch quotas on there
    bool enabled = false;
    bool hasPackage = false; // whether the quota tools are installed
    bool isInFstab = false;  // whether /etc/fstab asks for quotas there
    bool hasModules = false; // whether the kernel has its quota module, or a package with it can be had
    QString modulesPackage;  // its name
};
QList<Finding> checkQuota(const QuotaState &state);

// Whether a text of /etc/fstab asks for journaled quotas on the mount point.
bool asksForQuotas(const QByteArray &fstab, const QString &mount);

// What stands at a path, and what should.
struct Place
{
    QString path;
    QString owner; // its user and group, as the folder should have them
    QString group;
    mode_t mode = 0; // permission bits
};
struct Found
{
    bool exists = false;
    bool isFolder = false; // a link to one is none
    bool isSocket = false;
    QString owner;
    QString group;
    mode_t mode = 0;
};
QList<Finding> checkFolder(const Place &wanted, const Found &found);

// The same of the agent's socket, which only the agent itself makes anew.
QList<Finding> checkSocket(const Place &wanted, const Found &found);

} // namespace corv::ctl
