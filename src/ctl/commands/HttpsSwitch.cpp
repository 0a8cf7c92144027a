#include "ctl/commands/Https.h"

#include "common/Environment.h"
#include "ctl/Command.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/https/Apache.h"
#include "ctl/https/View.h"

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

int done(const Session &session, const QString &sentence, const QString &next)
{
    if (session.options.json) {
        print("{\"ok\":true}\n");
    } else if (!session.options.plain) {
        printLine(sentence);
        if (!next.isEmpty())
            note(next);
    }
    return kDone;
}

} // namespace

std::optional<int> refuseUnlessHere(const Session &session, const QString &command)
{
    if (session.options.printOnly || !session.options.hosts.empty())
        return fail(kWrongUsage, u"HTTPS is Apache's affair on the server itself, not asked of the agent"_s);
    if (::geteuid() != 0)
        return fail(kNoConnection, u"HTTPS is switched and its certificates are read by root alone"_s,
                    u"run it as root: sudo corvctl "_s + command);
    cleanEnvironment();
    return {};
}

int httpsOn(Session &session, const Given &)
{
    if (const std::optional<int> end = refuseUnlessHere(session, u"https on"_s))
        return *end;
    const InterruptGuard guard;
    if (const QString problem = switchHttpsOn(); !problem.isEmpty())
        return refuse(session, problem,
                      problem.contains("corv-https is not installed"_L1) ? u"apt-get install corv-https"_s : QString());
    const https::State state = readHttps().value_or(https::State());
    if (!state.none.isEmpty())
        return refuse(session, u"Apache does not come up with HTTPS: "_s + state.none, u"corvctl https status"_s);
    return done(session, u"HTTPS is on for %1 site(s)"_s.arg(state.sites.size()),
                u"certificates come for names that lead here; corvctl https list shows how far they are"_s);
}

int httpsOff(Session &session, const Given &)
{
    if (const std::optional<int> end = refuseUnlessHere(session, u"https off"_s))
        return *end;
    if (!readHttps())
        return refuse(session, u"HTTPS is off already"_s);
    const InterruptGuard guard;
    if (const QString problem = switchHttpsOff(); !problem.isEmpty())
        return refuse(session, problem);
    return done(session, u"HTTPS is off for all accounts; their certificates are kept"_s, {});
}

} // namespace corv::ctl
