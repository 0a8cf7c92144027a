#include "ctl/Command.h"
#include "ctl/Remote.h"
#include "ctl/Session.h"

#include <csignal>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// How long a place in the queue of an agent is waited for that has many clients already.
constexpr int kConnectSeconds = 600;

// What a corvctl elsewhere runs here through ssh. The agent sees the user as whom it logged in.
int proxy(Session &session, const Given &)
{
    if (!session.options.hosts.empty())
        return fail(kWrongUsage, u"proxy is what the other server runs: it takes no -H"_s);
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
    return {"proxy", "Connect standard input and output with the agent; what -H runs on the other server", {}, proxy};
}

} // namespace corv::ctl
