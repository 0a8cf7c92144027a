#include "ctl/doctor/Firewall.h"

#include "common/TimedRun.h"
#include "ctl/doctor/Facts.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;

qsizetype rulesIn(const QByteArray &chain, const QByteArray &text)
{
    const QList<QByteArray> lines = text.split('\n');
    return std::count_if(lines.cbegin(), lines.cend(),
                         [begin = "-A " + chain + ' '](const QByteArray &line) { return line.startsWith(begin); });
}

// A run of ufw that was ended half-way leaves chains empty or without what leads to them.
bool isLoaded(const LoadedRules &rules, bool isClosed)
{
    const QByteArray before = rules.prefix + "-before-input";
    const QByteArray user = rules.prefix + "-user-input";
    const QList<QByteArray> lines = rules.loaded.split('\n');
    return lines.contains("-A INPUT -j " + before) && lines.contains("-A " + before + " -j " + user) &&
           rulesIn(before, rules.loaded) > 1 && rulesIn(user, rules.loaded) >= rulesIn(user, rules.kept) &&
           (!isClosed || lines.contains("-P INPUT DROP"));
}

bool turnsAway(const LoadedRules &rules)
{
    const QList<QByteArray> lines = rules.loaded.split('\n');
    return lines.contains("-N " + rules.prefix + "-before-input") && lines.contains("-P INPUT DROP");
}

bool hasLine(const QString &path, const QByteArray &line)
{
    return textOf(path).value_or(QByteArray()).split('\n').contains(line);
}

QByteArray chainsOf(const QString &program)
{
    return runWithin(kToolMs, program, {u"-S"_s}).output;
}

} // namespace

std::optional<FirewallState> readFirewall()
{
    const auto settings = u"/etc/ufw/ufw.conf"_s;
    const auto defaults = u"/etc/default/ufw"_s;
    if (!textOf(settings))
        return {};

    FirewallState state;
    state.isOn = hasLine(settings, "ENABLED=yes");
    state.isClosed = hasLine(defaults, "DEFAULT_INPUT_POLICY=\"DROP\"");
    const auto kept = [](const QString &name) { return textOf(u"/etc/ufw/"_s + name).value_or(QByteArray()); };
    state.rules.append({"ufw", chainsOf(u"iptables"_s), kept(u"user.rules"_s)});
    if (hasLine(defaults, "IPV6=yes"))
        state.rules.append({"ufw6", chainsOf(u"ip6tables"_s), kept(u"user6.rules"_s)});
    return state;
}

bool isAsKept(const FirewallState &state)
{
    return std::all_of(state.rules.cbegin(), state.rules.cend(), [&state](const LoadedRules &rules) {
        return state.isOn ? isLoaded(rules, state.isClosed) : !turnsAway(rules);
    });
}

QList<Finding> checkFirewall(const FirewallState &state)
{
    if (isAsKept(state))
        return {};
    if (state.isOn) {
        return {{Level::Fault, u"the firewall is on, but only a part of its rules is in force: a change was cut off"_s,
                 u"ufw reload"_s}};
    }
    return {{Level::Fault, u"the firewall is off, but still turns visitors away: a change was cut off"_s,
             u"ufw disable"_s}};
}

} // namespace corv::ctl
