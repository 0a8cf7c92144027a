#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/remote/Remote.h"
#include "ctl/remote/SshLogin.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>
#include <QStringList>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// How long another server is waited for that is asked for the port of the connection to it.
constexpr int kLookSeconds = 60;

int status(Session &session, const Given &)
{
    const Answer answer = ask(session, u"firewall.status"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    QList<Fact> facts = {{u"Installed"_s, yesNo(answer.reply.value("installed"_L1).toBool())}};
    if (answer.reply.contains("active"_L1))
        facts.append({u"On"_s, yesNo(answer.reply.value("active"_L1).toBool(), Colour::Good, Colour::Warning)});
    facts.append({u"SSH ports"_s, text(answer.reply.value("sshPort"_L1).toString())});
    if (answer.reply.contains("rules"_L1))
        facts.append({u"Rules"_s, number(answer.reply.value("rules"_L1).toArray().size())});
    printFacts(session, facts);
    return kDone;
}

int list(Session &session, const Given &)
{
    const Answer answer = ask(session, u"firewall.status"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    if (!answer.reply.value("installed"_L1).toBool())
        note(u"ufw is not installed; corvctl firewall enable installs it"_s);
    else if (!answer.reply.value("active"_L1).toBool())
        note(u"the firewall is off"_s);

    QList<Row> rows;
    for (const QJsonValue value : answer.reply.value("rules"_L1).toArray()) {
        const QJsonObject rule = value.toObject();
        rows.append({text(rule.value("to"_L1).toString()), text(rule.value("action"_L1).toString()),
                     text(rule.value("from"_L1).toString()), number(rule.value("number"_L1).toInteger()),
                     yesNo(rule.value("ssh"_L1).toBool(), Colour::Good)});
    }
    printTable(session, {u"TO"_s, u"ACTION"_s, u"FROM"_s, u"NUMBER"_s, u"SSH"_s}, rows);
    return kDone;
}

// The agent opens the ports that sshd's settings name. Where the administrator came in by another one (forwarded, or of
// an sshd with other settings) the firewall would cut this very connection off.
std::optional<int> wouldLockOut(Session &session)
{
    if (session.options.printOnly)
        return {};
    QString own = sshLoginPort();
    if (!session.options.hosts.empty()) {
        // The way in is the one that ssh takes there, whatever this machine was reached by.
        const Distant variable = runThere(session.options, {u"printenv"_s, u"SSH_CONNECTION"_s}, kLookSeconds);
        own = sshPortIn(variable.output.trimmed());
        if (own.isEmpty()) {
            return fail(kNoConnection, variable.problem.isEmpty()
                                           ? u"the port of the SSH connection is not told there"_s
                                           : variable.problem);
        }
    }
    if (own.isEmpty())
        return {};
    const Answer answer = ask(session, u"firewall.status"_s);
    if (!answer.ok())
        return settled(session, answer);
    const QString seen = answer.reply.value("sshPort"_L1).toString();
    if (seen.split(u", "_s).contains(own))
        return {};
    return fail(
        kRefused,
        u"you are logged in by SSH on port %1, but the agent sees sshd on port %2 only: the firewall would lock "
        "you out, so it was not switched on"_s.arg(own, seen),
        u"name the port in sshd's settings (sshd -T shows what holds), or log in on port %1"_s.arg(seen));
}

int enable(Session &session, const Given &)
{
    if (const std::optional<int> end = wouldLockOut(session))
        return *end;
    const Answer answer = ask(session, u"firewall.enable"_s);
    QStringList opened;
    for (const QJsonValue port : answer.reply.value("allowed"_L1).toArray())
        opened.append(port.toString());
    return settledWith(session, answer, u"the firewall is on; open: %1"_s.arg(opened.join(u", "_s)));
}

int disable(Session &session, const Given &)
{
    return settledWith(session, ask(session, u"firewall.disable"_s), u"the firewall is off; its rules are kept"_s);
}

int allow(Session &session, const Given &given)
{
    bool valid = false;
    const qint64 port = given.text("PORT").toLongLong(&valid);
    if (!valid)
        return fail(kWrongUsage, u"PORT is a number"_s);
    QJsonObject args = {{u"port"_s, port}};
    if (given.has("--proto"))
        args.insert(u"proto"_s, given.text("--proto"));
    if (given.has("--from"))
        args.insert(u"from"_s, given.text("--from"));
    return settledWith(session, ask(session, u"firewall.allow"_s, args), u"port %1 is open"_s.arg(port));
}

int remove(Session &session, const Given &given)
{
    bool valid = false;
    const qint64 number = given.text("NUMBER").toLongLong(&valid);
    if (!valid)
        return fail(kWrongUsage, u"NUMBER is that of a rule in corvctl firewall list"_s);
    return settledWith(session, ask(session, u"firewall.delete"_s, {{u"number"_s, number}}),
                       u"rule %1 is deleted; those behind it have new numbers"_s.arg(number));
}

} // namespace

Command firewallCommand()
{
    return {"firewall",
            "The firewall",
            {},
            nullptr,
            {{"status", "Show whether the firewall is on", {}, status},
             {"list", "List the firewall's rules", {}, list},
             {"enable", "Switch the firewall on, unless that would cut off your own SSH connection", {}, enable},
             {"disable", "Switch the firewall off; its rules are kept", {}, disable},
             {"allow",
              "Open a port",
              {{"PORT", "1 to 65535"},
               {"--proto", "the protocol; tcp without this", Kind::Value, Names::Nothing, {"tcp", "udp", "both"}},
               {"--from", "an address or range that alone is let in", Kind::Value}},
              allow},
             {"delete", "Delete a rule, unless it lets SSH in", {{"NUMBER", "its number in the list"}}, remove}}};
}

} // namespace corv::ctl
