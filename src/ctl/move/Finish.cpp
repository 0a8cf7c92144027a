#include "common/Quotas.h"
#include "ctl/Session.h"
#include "ctl/move/Back.h"
#include "ctl/move/Forward.h"
#include "ctl/move/HttpsAlong.h"
#include "ctl/move/Move.h"
#include "ctl/move/Verdict.h"
#include "ctl/restore/Apply.h"
#include "ctl/restore/Kept.h"
#include "ctl/restore/Restore.h"

#include <QDateTime>

#include <functional>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

// Does one part of what is put back, where no earlier attempt has: its user may have changed it since. False where it
// could not be done.
bool putBack(Task *task, const QString &part, const std::function<QStringList()> &apply)
{
    if (task->record.done.contains(part))
        return true;
    QStringList lost = apply();
    if (lost.isEmpty() && !keepDone(&task->record, part))
        lost.append(u"that its %1 is done could not be kept in %2"_s.arg(part, kMoves));
    task->done.lost += lost;
    return lost.isEmpty();
}

// Who comes back may have a limit here that was lifted there.
QStringList applyLimit(Task *task)
{
    const AccountState &state = task->state;
    const qint64 limit = state.limitMb.value_or(0);
    if (limit == 0 && (!task->record.isBack || !state.limitMb || !quota::enabled()))
        return {};
    const QString problem =
        problemOf(ask(task->session, u"quota.set"_s, {{u"username"_s, state.username}, {u"mb"_s, limit}}));
    return problem.isEmpty() ? QStringList() : QStringList{u"the limit of %1 MiB: %2"_s.arg(limit).arg(problem)};
}

// What of the account runs by itself, now that there is something for it to work on, and its login. False where another
// attempt has something to do.
bool applyRest(Task *task)
{
    const AccountState &state = task->state;
    const QString &account = state.username;
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    QStringList &lost = task->done.lost;
    if (task->record.isBack) {
        (void)putBack(task, kCleared, [&] {
            clearJobs(account);
            return QStringList();
        });
    }
    bool isAll = true;
    if (!state.isSuspended) {
        if (!task->record.done.contains(kJobs))
            lost += lateJobs(state, now);
        isAll = putBack(task, kLogin, [&] { return applyLogin(state, account); });
        isAll = putBack(task, kJobs, [&] { return applyJobs(state, account, now); }) && isAll;
        isAll = putBack(task, kLinger, [&] { return applyLinger(state, account); }) && isAll;
    }
    isAll = putBack(task, kCrontab, [&] { return applyCrontab(state, account); }) && isAll;
    isAll = putBack(task, kLimit, [&] { return applyLimit(task); }) && isAll;
    for (const QString &what : state.leftOut)
        lost.append(u"some of the %1, of which there was too much to be written down"_s.arg(what));
    lost += databaseDifferences(state, account);
    return isAll;
}

// Visitors who still come to the old address are led on here, before anything that nobody waits for.
void leadHere(Task *task)
{
    if (task->state.isSuspended)
        return; // both servers say the same of it
    task->say(u"leading its old address on to here"_s);
    const Record &record = task->record;
    const OldAddress old = leadOldAddress(task->session.options, record.host, record.account, task->state.domain);
    const auto isLost = [task](const QString &what, const QString &problem) {
        if (!problem.isEmpty())
            task->done.lost.append(what + problem);
    };
    isLost(u"its old address: "_s, old.problem);
    isLost(u"its old address on port 443: "_s, old.httpsProblem);
    isLost(u"the visitors' own addresses in its log: "_s, old.logProblem);
    if (!old.problem.isEmpty())
        return;
    task->done.address = old.address;
    // What stands already stays where this is done once more.
    if (old.httpsProblem.isEmpty() && old.logProblem.isEmpty())
        (void)keepDone(&task->record, kForwarded);
}

} // namespace

void finish(Task *task)
{
    if (const auto kept = readState(moveFile(task->record.account, u"state"_s), task->record.account))
        task->state = *kept;
    if (task->record.isBack && !task->record.done.contains(kReturned)) {
        const QString problem = endLeaving(task->session.options, task->record);
        if (problem.isEmpty())
            (void)keepDone(&task->record, kReturned);
        else
            task->done.lost.append(u"the way that its names were led from here: "_s + problem);
    }
    if (!task->record.done.contains(kForwarded))
        leadHere(task);
    // It stays there as it is, but for whoever resumes it once.
    Shell shell;
    if (QString problem = shell.open(task->record.host);
        !problem.isEmpty() || !(problem = thaw(&shell, task->record.account)).isEmpty())
        task->done.lost.append(u"the database that is left there stays read-only: "_s + problem);
    bool isAll = true;
    if (!task->record.done.contains(kFinished)) {
        task->say(u"putting back its login, jobs and limit"_s);
        isAll = applyRest(task);
        (void)keepStates(); // the backup before the next one to write it down is the next
    }
    task->say(u"looking at the site"_s);
    task->done.seen = lookAtSite(task->record.account, task->state.isSuspended);
    if (const QString problem = httpsProblemHere(task->record.account, task->state.domain); !problem.isEmpty())
        task->done.lost.append(u"its HTTPS: "_s + problem);
    if (isAll && !keepDone(&task->record, kFinished))
        task->done.lost.append(u"that this move is done could not be kept in %1"_s.arg(kMoves));
}

} // namespace corv::ctl::moving
