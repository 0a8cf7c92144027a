#include "ctl/php/Move.h"

#include "common/InHand.h"
#include "common/Paths.h"
#include "common/Pool.h"
#include "common/Run.h"
#include "ctl/doctor/Accounts.h"
#include "ctl/doctor/PhpPools.h"
#include "ctl/doctor/Visitors.h"
#include "ctl/php/Back.h"
#include "ctl/php/Fpm.h"
#include "ctl/php/HandOver.h"
#include "ctl/php/MovingPools.h"
#include "ctl/php/SiteLook.h"
#include "ctl/php/Sockets.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QThread>

#include <algorithm>
#include <cstdio>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

using Say = std::function<void(const QString &)>;

constexpr int kIdleSeconds = 60;
constexpr int kIdleMs = 20;

// Whether the new version would start with the pools that it does not have yet.
QString testPools(const MovePlan &plan)
{
    QHash<QString, QByteArray> texts;
    for (const MovingPool &pool : plan.pools) {
        const std::optional<QByteArray> text = textOf(plan, pool);
        if (!text)
            return u"the pool of %1 cannot be read"_s.arg(pool.account);
        if (!pool.becomesParked && !exists(targetOf(plan, pool)))
            texts.insert(pool.account, *text);
    }
    if (const QString problem = testFpm(plan.to, texts); !problem.isEmpty())
        return u"PHP %1 does not take the pools: %2"_s.arg(plan.to, problem);
    // One that does not come back from its reload would take whatever else it serves with it.
    if (plan.canGoBack && !plan.empties && isFpmRunning(plan.from)) {
        if (const QString problem = testFpm(plan.from, {}); !problem.isEmpty())
            return u"PHP %1 would not come back from its reload: %2"_s.arg(plan.from, problem);
    }
    return {};
}

// Has the new version serve all, beside the old one. The pools lie beside their places.
QString serve(const MovePlan &plan, qint64 *milliseconds)
{
    QStringList accounts = servedAfter(plan);
    // It hands those sockets down to itself, also of a pool that was taken out of its folder since it read that: one
    // that is put aside would come back under no name.
    const QStringList served = servedBy(plan.to, accounts);
    accounts.removeIf([&](const QString &account) { return served.contains(account); });
    if (const QString problem = placePools(plan); !problem.isEmpty())
        return problem;
    const auto last = std::max_element(accounts.cbegin(), accounts.cend());
    return takeOver(plan.to, accounts, last == accounts.cend() ? QString() : hosting::poolPath(plan.to, *last),
                    milliseconds);
}

// Puts the pools aside of accounts that were suspended while theirs was on its way.
QString parkSuspended(const MovePlan &plan)
{
    awaitIdleAgent(kIdleSeconds);
    bool isChanged = false;
    for (const MovingPool &pool : plan.pools) {
        if (!pool.becomesParked && wantedState(pool.account) == PoolState::Parked)
            isChanged =
                std::rename(QFile::encodeName(hosting::poolPath(plan.to, pool.account)).constData(),
                            QFile::encodeName(hosting::parkedPoolPath(plan.to, pool.account)).constData()) == 0 ||
                isChanged;
    }
    return isChanged ? reloadFpm(plan.to) : QString();
}

// The sites that were well and are to be on-line, and are not well now.
QStringList worseAmong(const MovePlan &plan, const QStringList &well)
{
    const QStringList served = servedAfter(plan);
    QStringList asked = well;
    asked.removeIf([&](const QString &account) { return !served.contains(account); });
    QStringList bad = awaitWell(asked);
    // Those that were suspended or deleted meanwhile are as they should be.
    bad.removeIf([](const QString &account) { return isNoUser(account) || wantedState(account) == PoolState::Parked; });
    return bad;
}

// What is left to do when the new version serves all.
Moved end(const MovePlan &plan, Moved moved)
{
    for (const MovingPool &pool : plan.pools)
        moved.moved.append(pool.account);
    const QString left = finishMove(plan);
    moved.problem = hosting::joined({moved.problem, left, parkSuspended(plan)});
    return moved;
}

} // namespace

void awaitIdleAgent(int seconds)
{
    const QDeadlineTimer end(qint64(seconds) * 1000);
    while (readInHand(kInHandPath) && !end.hasExpired())
        QThread::msleep(kIdleMs);
}

QStringList dropNobodys(const QStringList &paths)
{
    QStringList dropped;
    for (const QString &path : paths) {
        if (isNoUser(accountOfFile(path.section(u'/', -1))) && QFile::remove(path))
            dropped.append(path);
    }
    return dropped;
}

Moved movePools(const MovePlan &wanted, const Say &say)
{
    MovePlan plan = wanted;
    Moved moved;
    awaitIdleAgent(kIdleSeconds);
    moved.dropped = dropNobodys(plan.nobodys);
    leaveOutGone(&plan);
    if (plan.cutOff) {
        mendNames(plan);
        if (plan.cutOff->isServed) {
            plan.pools = plan.cutOff->pools;
            return end(plan, moved);
        }
        // What the new version has got by then is not known: all is as before first.
        if (plan.canGoBack)
            moved.problem = goBack(plan);
        if (!moved.problem.isEmpty())
            return moved;
        removeMove();
    }
    say(u"trying PHP %1 with the pools"_s.arg(plan.to));
    moved.problem = testPools(plan);
    if (!moved.problem.isEmpty())
        return moved;

    say(u"looking at the sites"_s);
    const QStringList well = plan.cutOff ? plan.cutOff->well : wellAmong(servedAfter(plan));
    if (!keepMove({plan.from, plan.to, plan.pools, well, false}))
        moved.problem = u"what is being done cannot be written down in /var/lib/corvane"_s;
    if (moved.problem.isEmpty())
        moved.problem = stagePools(plan);
    if (!moved.problem.isEmpty()) {
        unstagePools(plan);
        removeMove();
        return moved;
    }

    say(u"moving %1 pools"_s.arg(plan.pools.size()));
    awaitIdleAgent(kIdleSeconds);
    leaveOutGone(&plan);
    QString problem = serve(plan, &moved.milliseconds);
    if (problem.isEmpty()) {
        say(u"looking at the sites again"_s);
        moved.bad = worseAmong(plan, well);
        if (!moved.bad.isEmpty())
            problem = u"visitors of %1 saw a page before, and see none now"_s.arg(someOf(moved.bad));
    }
    if (problem.isEmpty() && !keepMove({plan.from, plan.to, plan.pools, well, true}))
        problem = u"how far it is cannot be written down in /var/lib/corvane"_s;
    if (!problem.isEmpty() && plan.canGoBack) {
        say(u"going back to PHP %1: %2"_s.arg(plan.from, problem));
        const QString left = goBack(plan);
        removeMove();
        moved.wentBack = left.isEmpty();
        moved.problem = left.isEmpty() ? problem : problem + u"; going back: "_s + left;
        return moved;
    }
    moved.problem = problem;
    return end(plan, moved);
}

} // namespace corv::ctl
