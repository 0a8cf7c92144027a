#include "common/Account.h"
#include "common/Environment.h"
#include "common/InHand.h"
#include "common/Json.h"
#include "common/Pool.h"
#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/doctor/Facts.h"
#include "ctl/doctor/Report.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Busy.h"

#include <QSysInfo>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// An agent that is well answers at once; one that works on something else may take its hour.
constexpr int kPingSeconds = 10;
// The longest examination: its tools end after half a minute each, the measuring of homes after a minute.
constexpr int kRemoteSeconds = 900;

Check checkAgent(Session &session)
{
    const UnitProperties unit = unitProperties(u"corv-agent.service"_s);
    const int seconds = session.options.timeout > 0 ? session.options.timeout : kPingSeconds;
    const Answer answer = session.client.request(compactJson({{u"cmd"_s, u"ping"_s}}), seconds, [](const Waiting &) {});
    Check check = {u"agent"_s, unit.value(u"SubState"_s), {}};
    if (answer.ok())
        check.seen = u"answers, version %1"_s.arg(answer.reply.value("version"_L1).toString());

    const bool isBusy = answer.fate == Answer::Fate::TimedOut;
    check.findings = ctl::checkAgent(unit, answer.ok() || isBusy ? QString() : answer.problem);
    if (isBusy) {
        const std::optional<InHand> request = readInHand(kInHandPath);
        check.findings.append({Level::Note,
                               u"the agent did not answer within %1 s: it %2"_s.arg(
                                   QString::number(seconds), request ? u"works on "_s + named(*request)
                                                                     : u"works on another request, or hangs"_s),
                               u"journalctl -u corv-agent -n 20"_s});
    }
    return check;
}

// The name of the other server is told by whoever asked for it; what comes from there is a report or nothing.
int examineThere(const Session &session)
{
    const Distant examination = runThere(session.options, {u"corvctl"_s, u"doctor"_s, u"--json"_s}, kRemoteSeconds);
    const std::optional<Report> report = parseReport(examination.output);
    if (!report && examination.problem.isEmpty())
        return fail(kNoConnection, u"what answers there is no report"_s);
    if (!report)
        return fail(examination.status, examination.problem);
    printReport(session, *report);
    return examination.status == kDone ? kDone : kRefused;
}

int printPool(const QString &account)
{
    if (!hosting::validUsername(account))
        return fail(kWrongUsage, u"'%1' is no name of an account"_s.arg(account));
    print(hosting::pool(account));
    return kDone;
}

int doctor(Session &session, const Given &given)
{
    if (given.has("--pool"))
        return printPool(given.text("--pool"));
    if (session.options.printOnly) {
        (void)ask(session, u"ping"_s); // the one request that an examination sends
        return kDone;
    }
    if (!session.options.hosts.empty())
        return examineThere(session);
    if (::geteuid() != 0) {
        return fail(kNoConnection, u"the doctor looks into what only root may read"_s,
                    u"run it as root: sudo corvctl doctor"_s);
    }

    cleanEnvironment();
    Report report = {QSysInfo::machineHostName(), {checkAgent(session)}};
    report.checks += examine(settingsPath(session.options));
    printReport(session, report);
    return report.count(Level::Fault) == 0 ? kDone : kRefused;
}

} // namespace

Command doctorCommand()
{
    return {"doctor",
            "Look for what is wrong with the server, and tell how to mend it; nothing is changed",
            {{"--pool", "print the PHP pool file that this account should have", Kind::Value, Names::Account}},
            doctor};
}

} // namespace corv::ctl
