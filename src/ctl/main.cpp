#include "ctl/CommandLine.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"

#include <cstdio>

using namespace corv::ctl;

namespace {

std::vector<Command> allCommands()
{
    return {callCommand()};
}

} // namespace

int main(int argc, char **argv)
{
    Session session;
    const Parsed parsed = parseCommandLine(allCommands(), argc, argv, &session.options);
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
