#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/Transfer.h"
#include "ctl/remote/Remote.h"

#include <csignal>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// How long a place in the queue of an agent is waited for that has many clients already.
constexpr int kConnectSeconds = 600;

// Has its hands in the transfer directory for a corvctl elsewhere.
int transfer(const Session &session, const Given &given)
{
    Transferred done;
    if (given.has("--put"))
        done = putPiecesIntoTransfer(session, Fd(::dup(STDIN_FILENO)), given.text("--put"));
    else if (given.has("--take"))
        done = takeFromTransfer(session, given.text("--take"), -1, Fd(::dup(STDOUT_FILENO)), {});
    else
        removeFromTransfer(session, given.text("--drop"));
    return done.status == kDone ? kDone : fail(done.status, done.problem);
}

// What a corvctl elsewhere runs here through ssh. The agent sees the user as whom it logged in.
int proxy(Session &session, const Given &given)
{
    if (!session.options.hosts.empty())
        return fail(kWrongUsage, u"proxy is what the other server runs: it takes no -H"_s);
    if (given.has("--put") || given.has("--take") || given.has("--drop"))
        return transfer(session, given);
    Fd socket;
    const int seconds = session.options.timeout > 0 ? session.options.timeout : kConnectSeconds;
    if (const std::optional<Answer> failure = session.client.open(seconds, &socket))
        return settled(session, *failure).value_or(kNoConnection);
    (void)std::signal(SIGPIPE, SIG_IGN); // an agent that stops is an end like another
    return copyStreams(socket) ? kDone : fail(kNoConnection, u"the connection was cut off"_s);
}

} // namespace

Command proxyCommand()
{
    return {"proxy",
            "Connect standard input and output with the agent; what -H runs on the other server",
            {{"--put", "put the pieces on standard input into the transfer directory, under this name", Kind::Value},
             {"--take", "take this file of the transfer directory out of it, to standard output", Kind::Value},
             {"--drop", "remove this file from the transfer directory", Kind::Value}},
            proxy};
}

} // namespace corv::ctl
