#include "common/Pool.h"
#include "ctl/doctor/PhpPools.h"
#include "ctl/php/Fpm.h"
#include "ctl/php/Move.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

std::optional<PhpPools> find(const QList<PhpPools> &versions, const QString &version)
{
    const auto found =
        std::find_if(versions.cbegin(), versions.cend(), [&](const PhpPools &one) { return one.version == version; });
    return found == versions.cend() ? std::nullopt : std::optional(*found);
}

// Each account's pool, in the state that its site asks for: suspensions and resumptions may have passed it by.
QList<MovingPool> poolsOf(const PhpPools &pools, const QList<MovingPool> &begun)
{
    QList<MovingPool> moving = begun;
    for (const QString &account : pools.live + pools.parked) {
        const bool isKnown = std::any_of(moving.cbegin(), moving.cend(),
                                         [&](const MovingPool &pool) { return pool.account == account; });
        if (isKnown)
            continue;
        const bool wasParked = !pools.live.contains(account);
        const PoolState wanted = wantedState(account);
        moving.append({account, wasParked, wanted == PoolState::Any ? wasParked : wanted == PoolState::Parked});
    }
    return moving;
}

} // namespace

std::optional<MovePlan> planMove(const QString &from, const QString &to, QString *problem, QString *hint)
{
    const QList<PhpPools> versions = readPhpPools(problem);
    if (!problem->isEmpty())
        return {};
    *hint = u"corvctl php status shows what there is"_s;
    const std::optional<PhpPools> source = find(versions, from);
    const std::optional<PhpPools> target = find(versions, to);
    if (!source || !target)
        *problem = u"PHP %1 has no folder of pools here"_s.arg(source ? to : from);
    else if (from == to)
        *problem = u"that is the same version twice"_s;
    else if (!target->isInstalled)
        *problem = u"PHP %1 has no FPM here"_s.arg(to);
    if (!problem->isEmpty())
        return {};
    // The agent looks for pools in the highest version alone.
    if (const QString inForce = hosting::phpVersion(); to != inForce) {
        *problem = u"accounts are made, suspended and deleted in PHP %1 here, the highest version"_s.arg(inForce);
        *hint = u"corvctl php move %1 %2"_s.arg(from == inForce ? to : from, inForce);
        return {};
    }
    const std::optional<MoveJournal> cutOff = readMove();
    if (cutOff && (cutOff->from != from || cutOff->to != to)) {
        *problem = u"a move from PHP %1 to %2 was cut off and has to be ended first"_s.arg(cutOff->from, cutOff->to);
        *hint = u"corvctl php move %1 %2"_s.arg(cutOff->from, cutOff->to);
        return {};
    }

    MovePlan plan;
    plan.from = from;
    plan.to = to;
    plan.pools = poolsOf(*source, cutOff ? cutOff->pools : QList<MovingPool>());
    plan.nobodys = source->nobodys + target->nobodys;
    plan.canGoBack = source->isInstalled;
    plan.empties = !source->hasOthers;
    if (plan.canGoBack)
        plan.missing = missingModules(from, to);
    plan.cutOff = cutOff;
    hint->clear();
    return plan;
}

} // namespace corv::ctl
