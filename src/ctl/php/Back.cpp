#include "ctl/php/Back.h"

#include "ctl/doctor/PhpPools.h"
#include "ctl/doctor/Visitors.h"
#include "ctl/php/Fpm.h"
#include "ctl/php/HandOver.h"
#include "ctl/php/MovingPools.h"
#include "ctl/php/Sockets.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kSocketSeconds = 15;
constexpr int kBindSeconds = 2;

QStringList accountsOf(const MovePlan &plan)
{
    QStringList accounts;
    for (const MovingPool &pool : plan.pools)
        accounts.append(pool.account);
    return accounts;
}

// Whether the new version can have got any of the pools, or does not run as it did. The reload of one that has nothing
// to let go of is waited for by nobody: it could still be reading when the next one places the pools, and end of that.
bool mayHaveTaken(const MovePlan &plan)
{
    return isAnyAside(accountsOf(plan)) || !isFpmRunning(plan.from) || !isFpmRunning(plan.to) || !hasPools(plan.to);
}

} // namespace

void mendNames(const MovePlan &plan)
{
    restoreNames(accountsOf(plan));
    // An FPM that was held back is let go by the kill, and may be about to make its sockets.
    const QStringList aside = asideAmong(accountsOf(plan));
    putBack(isFpmRunning(plan.to) ? awaitListening(aside, kBindSeconds) : aside);
}

QString goBack(MovePlan plan)
{
    leaveOutGone(&plan);
    // Where another socket is aside, the name leads to the new version's. Where it is the same, this was cut off.
    const QStringList aside = asideAmong(accountsOf(plan));
    const QStringList back = backAmong(aside);
    QStringList taken = listeningAmong(aside);
    taken.removeIf([&](const QString &account) { return back.contains(account); });
    putBack(aside);
    unstagePools(plan);
    unplacePools(plan);
    QString problem = mayHaveTaken(plan) ? letGo(plan.to, taken, back) : QString();
    if (!isFpmRunning(plan.from)) {
        if (const QString failed = reloadFpm(plan.from); !failed.isEmpty())
            problem = failed;
    }
    if (const QStringList missing = awaitListening(servedBefore(plan), kSocketSeconds); !missing.isEmpty())
        problem = u"PHP %1 does not serve %2"_s.arg(plan.from, someOf(missing));
    forgetSockets(accountsOf(plan));
    return problem;
}

QString finishMove(MovePlan plan)
{
    leaveOutGone(&plan);
    unstagePools(plan);
    settlePools(plan);
    QString problem;
    if (plan.canGoBack && isFpmRunning(plan.from))
        problem = letGo(plan.from, asideAmong(accountsOf(plan)), {});
    if (plan.canGoBack && problem.isEmpty() && !hasPools(plan.from))
        problem = enableFpm(plan.from, false);
    forgetSockets(accountsOf(plan));
    removeMove();
    return problem;
}

QString undoMove(const MoveJournal &journal)
{
    MovePlan plan;
    plan.from = journal.from;
    plan.to = journal.to;
    plan.pools = journal.pools;
    plan.canGoBack = isFpmInstalled(plan.from);
    mendNames(plan);
    if (journal.isServed || !plan.canGoBack)
        return finishMove(plan);
    const QString problem = goBack(plan);
    removeMove();
    return problem;
}

} // namespace corv::ctl
