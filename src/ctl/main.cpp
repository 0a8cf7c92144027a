#include "ctl/CommandLine.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"

#include <cstdio>

using namespace corv::ctl;

namespace {

// One function for each topic.
std::vector<Command> allCommands()
{
    return {accountCommand(), fileCommand(),   serviceCommand(), firewallCommand(), banCommand(),       updateCommand(),
            quotaCommand(),   backupCommand(), hostCommand(),    callCommand(),     completionCommand()};
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

    session.terminal = findTerminal();
    session.client.setSocket(socketPath(session.options));
    const int status = parsed.handler(session, parsed.given);
    // What a full disk or a closed pipe swallowed was not done.
    if (std::fflush(stdout) != 0 && status == kDone)
        return fail(kRefused, QStringLiteral("cannot write to standard output"));
    return status;
}
