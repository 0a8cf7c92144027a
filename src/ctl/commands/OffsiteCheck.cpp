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

// Whether the part that was read last is read once more: the next one says nothing of what was wrong with it.
bool isTriedAgain(const OffsiteState &state)
{
    return !state.checkProblem.isEmpty() && state.unread == 0 && state.part > 0;
}

// Keeps what a check has found. What one of everything found lies in a part that nobody knows: it stands until all
// parts have been well since, or one of them tells more.
void noteOutcome(const QString &problem, bool isAll, bool isWhole, OffsiteState *state)
{
    if (isAll)
        state->unread = isWhole ? 0 : kCheckParts;
    else
        state->unread = problem.isEmpty() && state->unread > 0 ? state->unread - 1 : 0;
    if (!problem.isEmpty() || state->unread == 0)
        state->checkProblem = problem;
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
    const bool hasFailed = !state.checkProblem.isEmpty();
    const int part = isAll || isTriedAgain(state) ? state.part : state.part % kCheckParts + 1;
    boundCache(*repository);
    (void)restic(*repository, {u"unlock"_s, u"--quiet"_s}, kAskMs);
    const QString read = isAll ? u"--read-data"_s : u"--read-data-subset=%1/%2"_s.arg(part).arg(kCheckParts);
    QStringList problems = {restic(*repository, {u"check"_s, u"--quiet"_s, read}, kCheckMs).problem};
    if (interrupted())
        return fail(interruptedStatus(), u"the check was interrupted"_s);
    const bool isWhole = problems.first().isEmpty();
    // While anything is wrong each time: data that stays damaged must not hide that the place has begun to forget.
    if (hasFailed || (isWhole && (isAll || part % kProbeEvery == 1)))
        problems.append(forgettingProblem(*repository));
    problems.removeAll(QString());
    problem = problems.join("; "_L1);

    state.checkedAt = QDateTime::currentSecsSinceEpoch();
    state.part = part;
    noteOutcome(problem, isAll, isWhole, &state);
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
