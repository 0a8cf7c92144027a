#include "ctl/CommandLine.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/remote/Hosts.h"
#include "ctl/remote/Remote.h"

#include <cstdio>

using namespace corv::ctl;

namespace {

// One function for each topic.
std::vector<Command> allCommands()
{
    return {accountCommand(), fileCommand(),   serviceCommand(),  firewallCommand(),  banCommand(),  updateCommand(),
            quotaCommand(),   backupCommand(), databaseCommand(), hostCommand(),      callCommand(), statusCommand(),
            doctorCommand(),  notifyCommand(), proxyCommand(),    completionCommand()};
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
    const std::vector<Command> commands = allCommands();
    Session session;
    session.commands = &commands;
    const Parsed parsed = parseCommandLine(commands, argc, argv, &session.options);
    if (!parsed.handler)
        return parsed.status;

    const std::vector<std::string> hosts = session.options.hosts;
    for (const std::string &host : hosts) {
        if (const QString problem = hostProblem(QString::fromStdString(host)); !problem.isEmpty())
            return fail(kWrongUsage, problem);
    }
    if (hosts.size() < 2)
        return run(session, parsed);
    session.options.isShown = findTerminal().out;
    return onEachHost(hosts, [&](const std::string &host) {
        session.options.hosts = {host};
        session.options.isOneOfMany = true;
        return run(session, parsed);
    });
}
