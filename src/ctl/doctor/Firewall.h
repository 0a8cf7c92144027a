#pragma once

#include "ctl/doctor/Finding.h"

#include <QByteArray>
#include <QList>

#include <optional>

namespace corv::ctl {

// What the kernel has of a firewall's rules for one kind of addresses, and what is kept of them.
struct LoadedRules
{
    QByteArray prefix; // of the chains' names, "ufw" or "ufw6"
    QByteArray loaded; // what "iptables -S" or "ip6tables -S" prints
    QByteArray kept;   // user.rules or user6.rules
};

// The firewall as its files have it and as the kernel has it.
struct FirewallState
{
    bool isOn = false;    // by ufw.conf
    bool isClosed = true; // whether what no rule names is dropped
    QList<LoadedRules> rules;
};

// Reads the files in /etc/ufw and asks iptables and ip6tables; nothing where ufw is not installed.
std::optional<FirewallState> readFirewall();

// Whether the kernel has all of it while the firewall is on, and nothing that turns anybody away while it is off.
bool isAsKept(const FirewallState &state);

// What a change of the firewall leaves that was cut off, and the command that mends it: one finding, or none.
QList<Finding> checkFirewall(const FirewallState &state);

} // namespace corv::ctl
