#pragma once

#include "agent/Reply.h"

namespace corv::security {

// firewall.status: whether ufw is installed and active, its numbered rules, and which of them let SSH in. Fails when
// ufw is there but cannot tell its status. Ignores args.
Reply firewallStatus(const QJsonObject &args);

// firewall.enable: installs ufw if need be, opens every SSH port, the web ports and, beside a DNS server, port 53, and
// only then switches the filter on. Stops at the first failure; what was opened by then stays. Ignores args.
Reply firewallEnable(const QJsonObject &args);

// firewall.disable: switches the filter off; the rules stay for a later enable. Ignores args.
Reply firewallDisable(const QJsonObject &args);

// firewall.allow: opens one port, for one protocol or both, to everybody or to an address or range.
Reply firewallAllow(const QJsonObject &args);

// firewall.delete: deletes the rule that has a number now, unless that rule lets SSH in.
Reply firewallDelete(const QJsonObject &args);

// fail2ban.status: whether fail2ban is installed and answers, and its jails with their banned addresses. Ignores args.
Reply fail2banStatus(const QJsonObject &args);

// fail2ban.enable: installs fail2ban, writes the panel's filter and jails, and restarts it. Ignores args.
Reply fail2banEnable(const QJsonObject &args);

// fail2ban.unban: lifts the ban of one address in one jail.
Reply fail2banUnban(const QJsonObject &args);

// updates.status: the upgradable packages, whether a restart is pending, and the state of installations. Ignores args.
Reply updatesStatus(const QJsonObject &args);

// updates.refresh: reads the package lists anew, unless updates are being installed. Ignores args.
Reply updatesRefresh(const QJsonObject &args);

// updates.install: starts the installation of security updates or of all in a unit of its own, one at a time.
Reply updatesInstall(const QJsonObject &args);

// updates.automatic: switches automatic security updates on or off.
Reply updatesAutomatic(const QJsonObject &args);

// system.reboot: restarts the machine five seconds later, when its name is given and no updates are being installed.
Reply reboot(const QJsonObject &args);

} // namespace corv::security
