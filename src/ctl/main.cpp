#include "ctl/CommandLine.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/remote/Hosts.h"
#include "ctl/remote/HostsFile.h"
#include "ctl/remote/Many.h"
#include "ctl/remote/Remote.h"

#include <cstdio>

using namespace corv::ctl;

namespace {

// One function for each topic.
std::vector<Command> allCommands()
{
    return {accountCommand(), fileCommand(),   serviceCommand(),   firewallCommand(), banCommand(),     updateCommand(),
            quotaCommand(),   backupCommand(), databaseCommand(),  hostCommand(),     httpsCommand(),   callCommand(),
            statusCommand(),  doctorCommand(), metricsCommand(),   notifyCommand(),   offsiteCommand(), serverCommand(),
            phpCommand(),     proxyCommand(),  completionCommand()};
}

// Does the command here, or, where another server was named, there.
int run(Session &session, const Parsed &parsed)
{
    Remote remote;
    if (session.options.hosts.empty())
        session.client.setSocket(socketPath(session.options));
    else
        session.client.setWay(wayTo(QString::fromStdString(session.options.hosts.front()), &remote));

    session.terminal = findTerminal();
    session.terminal.out = session.terminal.out || session.options.isShown;
    const int status = parsed.handler(session, parsed.given);
    session.client = {}; // its end is what the other server waits for, and ssh with it
    // What a full disk or a closed pipe swallowed was not done.
    if (std::fflush(stdout) != 0 && status == kDone)
        return fail(kRefused, QStringLiteral("cannot write to standard output"));
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<Command> commands = allCommands();
    commands.push_back(helpCommand(commands));
    Session session;
    session.commands = &commands;
    const Parsed parsed = parseCommandLine(commands, argc, argv, &session.options);
    if (!parsed.handler)
        return parsed.status;

    // A group has the same form of output however many are in it.
    const std::vector<std::string> named = session.options.hosts;
    const bool isMany = named.size() > 1 || (named.size() == 1 && named.front().starts_with('@'));
    QString problem;
    session.options.hosts = expandHosts(named, kHostsFile, &problem);
    if (!problem.isEmpty())
        return fail(kWrongUsage, problem);
    if (!isMany)
        return run(session, parsed);

    const std::vector<std::string> hosts = session.options.hosts;
    const bool isSurvey = parsed.isSurvey && !session.options.json && !session.options.printOnly;
    session.terminal = findTerminal();
    session.options.isShown = session.terminal.out;
    const auto work = [&session, &parsed, isSurvey](const std::string &host) {
        session.options.hosts = {host};
        session.options.isOneOfMany = true;
        session.options.plain = session.options.plain || isSurvey;
        return run(session, parsed);
    };
    if (session.options.json)
        return jsonOfEachHost(hosts, work);
    return isSurvey ? surveyOfHosts(session, hosts, work) : onEachHost(hosts, work);
}
