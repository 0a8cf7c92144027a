#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/commands/Offsite.h"
#include "ctl/offsite/Copy.h"
#include "ctl/offsite/Lock.h"
#include "ctl/offsite/Probe.h"
#include "ctl/screen/Terminal.h"

#include <QDateTime>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kCheckMs = 12 * 3'600'000;
// Of the parts, those with which it is also tried whether the place still refuses to forget: about once a week.
constexpr int kProbeEvery = 7;

// Whether a place that refused to forget still does.
QString forgettingProblem(const Repository &repository)
{
    QString problem;
    if (!repository.place.appendOnly)
        return {};
    switch (tryForgetting(repository, &problem)) {
    case Forgetting::Refused:
        return {};
    case Forgetting::Possible:
        (void)tryWriting(repository); // so that the next check has something to try it with
        return u"the place no longer refuses to forget: a break-in here can take away all backups"_s;
    case Forgetting::Unknown:
        break;
    }
    return u"whether the place refuses to forget cannot be told: "_s + problem;
}

int check(Session &session, const Given &given)
{
    int status = kDone;
    if (const std::optional<int> end = notHere(session, u"check"_s))
        return *end;
    const std::optional<Repository> repository = openedPlace(session, &status);
    if (!repository)
        return status;

    const InterruptGuard guard;
    QString problem;
    const Fd lock = lockOffsite(&problem);
    if (!lock)
        return fail(kRefused, problem);
    OffsiteState state = readOffsite();
    const bool isAll = given.has("--all");
    const int part = isAll ? state.part : state.part % kCheckParts + 1;
    boundCache(*repository);
    (void)restic(*repository, {u"unlock"_s, u"--quiet"_s}, kAskMs);
    const QString read = isAll ? u"--read-data"_s : u"--read-data-subset=%1/%2"_s.arg(part).arg(kCheckParts);
    problem = restic(*repository, {u"check"_s, u"--quiet"_s, read}, kCheckMs).problem;
    if (interrupted())
        return fail(interruptedStatus(), u"the check was interrupted"_s);
    if (problem.isEmpty() && (isAll || part % kProbeEvery == 1))
        problem = forgettingProblem(*repository);

    state.checkedAt = QDateTime::currentSecsSinceEpoch();
    state.part = part;
    state.checkProblem = problem;
    if (const QString unkept = keepOffsite(state); problem.isEmpty())
        problem = unkept;
    if (!problem.isEmpty()) {
        return refuse(session, problem, u"corvctl offsite restic 'check --read-data' tells all that is wrong"_s);
    }
    if (session.options.json)
        print("{\"ok\":true}\n");
    else if (!session.options.plain)
        printLine(isAll ? u"all of the data was read, and is whole"_s
                        : u"part %1 of %2 of the data was read, and is whole"_s.arg(part).arg(kCheckParts));
    return kDone;
}

} // namespace

Command offsiteCheckCommand()
{
    return {"check",
            "Read a part of what is there and see whether it is whole; the next part at the next check",
            {{"--all", "read everything at once", Kind::Flag}},
            check};
}

} // namespace corv::ctl
