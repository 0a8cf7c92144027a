#include "ctl/php/MovingPools.h"

#include "common/AtomicFile.h"
#include "common/Paths.h"
#include "common/Pool.h"
#include "ctl/doctor/PhpPools.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/php/Sockets.h"

#include <QFile>

#include <cstdio>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qint64 kLargestPool = 65'536;
constexpr mode_t kPoolMode = 0644;
constexpr auto kStaged = ".moving"_L1;

QString pathIn(const QString &version, const QString &account, bool isParked)
{
    return isParked ? hosting::parkedPoolPath(version, account) : hosting::poolPath(version, account);
}

bool isIn(const QString &version, const QString &account)
{
    return exists(pathIn(version, account, false)) || exists(pathIn(version, account, true));
}

void removeIn(const QString &version, const QString &account)
{
    for (const bool isParked : {false, true})
        (void)QFile::remove(pathIn(version, account, isParked)); // it has one of the two as a rule
}

} // namespace

QString targetOf(const MovePlan &plan, const MovingPool &pool)
{
    return pathIn(plan.to, pool.account, pool.becomesParked);
}

std::optional<QByteArray> textOf(const MovePlan &plan, const MovingPool &pool)
{
    for (const QString &version : {plan.to, plan.from}) {
        for (const bool isParked : {pool.becomesParked, !pool.becomesParked}) {
            if (std::optional<QByteArray> text = readUpTo(pathIn(version, pool.account, isParked), kLargestPool))
                return text;
        }
    }
    return {};
}

QStringList servedBefore(const MovePlan &plan)
{
    QStringList names;
    for (const MovingPool &pool : plan.pools) {
        if (!pool.wasParked)
            names.append(pool.account);
    }
    return names;
}

QStringList servedAfter(const MovePlan &plan)
{
    QStringList names;
    for (const MovingPool &pool : plan.pools) {
        if (!pool.becomesParked)
            names.append(pool.account);
    }
    return names;
}

void leaveOutGone(MovePlan *plan)
{
    plan->pools.removeIf([&](const MovingPool &pool) {
        if (!isNoUser(pool.account))
            return false;
        (void)QFile::remove(targetOf(*plan, pool) + kStaged);
        removeIn(plan->from, pool.account);
        removeIn(plan->to, pool.account);
        forgetSockets({pool.account});
        return true;
    });
}

QString stagePools(const MovePlan &plan)
{
    for (const MovingPool &pool : plan.pools) {
        const QString path = targetOf(plan, pool);
        if (exists(path))
            continue;
        const std::optional<QByteArray> text = textOf(plan, pool);
        if (!text || !replaceFile(path + kStaged, *text, kPoolMode))
            return u"the pool of %1 cannot be %2"_s.arg(pool.account, text ? u"written"_s : u"read"_s);
    }
    return {};
}

QString placePools(const MovePlan &plan)
{
    for (const MovingPool &pool : plan.pools) {
        const QString path = targetOf(plan, pool);
        if (exists(path + kStaged) &&
            std::rename(QFile::encodeName(path + kStaged).constData(), QFile::encodeName(path).constData()) != 0)
            return u"%1 cannot be put in its place"_s.arg(path);
        (void)QFile::remove(pathIn(plan.to, pool.account, !pool.becomesParked)); // as a rule there is none
    }
    return {};
}

void unstagePools(const MovePlan &plan)
{
    for (const MovingPool &pool : plan.pools)
        (void)QFile::remove(targetOf(plan, pool) + kStaged); // it may not have come to it
}

void unplacePools(const MovePlan &plan)
{
    for (const MovingPool &pool : plan.pools) {
        // Without the old version's there is nothing to go back to.
        if (isIn(plan.from, pool.account))
            removeIn(plan.to, pool.account);
    }
}

void settlePools(const MovePlan &plan)
{
    for (const MovingPool &pool : plan.pools) {
        if (isIn(plan.to, pool.account))
            removeIn(plan.from, pool.account);
    }
}

} // namespace corv::ctl
