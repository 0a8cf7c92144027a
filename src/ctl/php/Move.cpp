#include "ctl/php/Move.h"

#include "common/AtomicFile.h"
#include "common/InHand.h"
#include "common/Paths.h"
#include "common/Pool.h"
#include "common/Run.h"
#include "ctl/doctor/Accounts.h"
#include "ctl/doctor/PhpPools.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/doctor/Visitors.h"
#include "ctl/php/Fpm.h"
#include "ctl/php/SiteLook.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <cstdio>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

using Say = std::function<void(const QString &)>;

constexpr int kIdleSeconds = 60;
constexpr int kSocketSeconds = 15;
constexpr int kIdleMs = 20;
constexpr qint64 kLargestPool = 65'536;
constexpr mode_t kPoolMode = 0644;
// Neither is a name that an FPM reads: what lies there waits for the one moment in which all pools change.
constexpr auto kStaged = ".moving"_L1;
constexpr auto kAside = ".moved"_L1;

QString pathIn(const QString &version, const QString &account, bool isParked)
{
    return isParked ? hosting::parkedPoolPath(version, account) : hosting::poolPath(version, account);
}

QString targetOf(const MovePlan &plan, const MovingPool &pool)
{
    return pathIn(plan.to, pool.account, pool.becomesParked);
}

bool rename(const QString &from, const QString &to)
{
    return std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

// The pool's text, wherever a move that was cut off has left it. One that the new version has already counts.
std::optional<QByteArray> textOf(const MovePlan &plan, const MovingPool &pool)
{
    for (const bool isParked : {pool.becomesParked, !pool.becomesParked}) {
        if (std::optional<QByteArray> text = readUpTo(pathIn(plan.to, pool.account, isParked), kLargestPool))
            return text;
    }
    for (const bool isParked : {pool.wasParked, !pool.wasParked}) {
        const QString path = pathIn(plan.from, pool.account, isParked);
        if (std::optional<QByteArray> text = readUpTo(path, kLargestPool))
            return text;
        if (std::optional<QByteArray> text = readUpTo(path + kAside, kLargestPool))
            return text;
    }
    return {};
}

// Those that have a socket in that version.
QStringList servedIn(const MovePlan &plan, bool isOld)
{
    QStringList names;
    for (const MovingPool &pool : plan.pools) {
        if (isOld ? !pool.wasParked : !pool.becomesParked)
            names.append(pool.account);
    }
    return names;
}

// An account that was deleted meanwhile would keep the whole FPM from coming up.
void leaveOutGone(MovePlan *plan)
{
    plan->pools.removeIf([&](const MovingPool &pool) {
        if (!isNoUser(pool.account))
            return false;
        for (const bool isParked : {false, true}) {
            for (const QString &path : {pathIn(plan->from, pool.account, isParked) + kAside,
                                        pathIn(plan->to, pool.account, isParked) + kStaged})
                (void)QFile::remove(path);
        }
        return true;
    });
}

// Lays the pools beside their places in the new version. Returns why that could not be.
QString stage(const MovePlan &plan)
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

void clearStage(const MovePlan &plan)
{
    for (const MovingPool &pool : plan.pools)
        (void)QFile::remove(targetOf(plan, pool) + kStaged);
}

// Takes the pools from the old version, whose FPM then lets go of their sockets: two FPMs that serve one socket are one
// too many, and the second does not start.
QString release(const MovePlan &plan)
{
    for (const MovingPool &pool : plan.pools) {
        for (const bool isParked : {false, true}) {
            const QString path = pathIn(plan.from, pool.account, isParked);
            if (exists(path) && !rename(path, path + kAside))
                return u"%1 cannot be put aside"_s.arg(path);
        }
    }
    if (!plan.canGoBack || !isFpmRunning(plan.from))
        return {};
    // Where a move was cut off, the new version may serve them already.
    const QStringList served = servedIn(plan, true);
    const QStringList ending = plan.cutOff ? servedBy(plan.from, served) : served;
    if (const QString problem = plan.empties ? stopFpm(plan.from) : reloadFpm(plan.from); !problem.isEmpty())
        return problem;
    const QStringList held = awaitReleased(ending, kSocketSeconds);
    return held.isEmpty() ? QString() : u"PHP %1 does not let go of %2"_s.arg(plan.from, someOf(held));
}

QString takeOver(const MovePlan &plan)
{
    for (const MovingPool &pool : plan.pools) {
        const QString path = targetOf(plan, pool);
        if (exists(path + kStaged) && !rename(path + kStaged, path))
            return u"%1 cannot be put in its place"_s.arg(path);
        (void)QFile::remove(pathIn(plan.to, pool.account, !pool.becomesParked));
    }
    if (const QString problem = reloadFpm(plan.to); !problem.isEmpty())
        return problem;
    const QStringList missing = awaitListening(servedIn(plan, false), kSocketSeconds);
    return missing.isEmpty() ? QString() : u"PHP %1 does not serve %2"_s.arg(plan.to, someOf(missing));
}

// Makes all as it was before. Returns what could not be.
QString goBack(MovePlan plan)
{
    leaveOutGone(&plan);
    for (const MovingPool &pool : plan.pools) {
        // Without the old version's pool there is nothing to go back to.
        if (!exists(pathIn(plan.from, pool.account, pool.wasParked) + kAside))
            continue;
        (void)QFile::remove(targetOf(plan, pool));
        (void)QFile::remove(targetOf(plan, pool) + kStaged);
    }
    QString problem = reloadFpm(plan.to); // it may be down over what went wrong
    (void)awaitReleased(servedIn(plan, false), kSocketSeconds);
    for (const MovingPool &pool : plan.pools) {
        for (const bool isParked : {false, true}) {
            const QString path = pathIn(plan.from, pool.account, isParked);
            if (exists(path + kAside) && !rename(path + kAside, path))
                problem = u"%1 cannot be put back"_s.arg(path);
        }
    }
    if (const QString failed = reloadFpm(plan.from); !failed.isEmpty())
        problem = failed;
    if (const QStringList missing = awaitListening(servedIn(plan, true), kSocketSeconds); !missing.isEmpty())
        problem = u"PHP %1 does not serve %2"_s.arg(plan.from, someOf(missing));
    removeMove();
    return problem;
}

// Where nothing can be gone back to: what the new version has stays there, and the rest lies where the next attempt
// finds it.
void settle(const MovePlan &plan)
{
    for (const MovingPool &pool : plan.pools) {
        const bool isThere =
            exists(pathIn(plan.to, pool.account, false)) || exists(pathIn(plan.to, pool.account, true));
        (void)QFile::remove(targetOf(plan, pool) + kStaged);
        for (const bool isParked : {false, true}) {
            const QString path = pathIn(plan.from, pool.account, isParked);
            if (isThere)
                (void)QFile::remove(path + kAside);
            else if (exists(path + kAside))
                (void)rename(path + kAside, path); // where that fails the text is kept all the same
        }
    }
    removeMove();
}

Moved wentBack(const MovePlan &plan, Moved moved, const QString &problem, const Say &say)
{
    moved.problem = problem;
    if (!plan.canGoBack) {
        settle(plan);
        return moved;
    }
    say(u"going back to PHP %1: %2"_s.arg(plan.from, problem));
    const QString left = goBack(plan);
    moved.wentBack = left.isEmpty();
    if (!left.isEmpty())
        moved.problem += u"; going back: "_s + left;
    return moved;
}

// Puts the pools aside of accounts that were suspended while theirs was on its way.
QString parkSuspended(const MovePlan &plan)
{
    awaitIdleAgent(kIdleSeconds);
    bool isChanged = false;
    for (const MovingPool &pool : plan.pools) {
        if (!pool.becomesParked && wantedState(pool.account) == PoolState::Parked)
            isChanged =
                rename(hosting::poolPath(plan.to, pool.account), hosting::parkedPoolPath(plan.to, pool.account)) ||
                isChanged;
    }
    return isChanged ? reloadFpm(plan.to) : QString();
}

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

QString undoMove(const MoveJournal &journal)
{
    MovePlan plan;
    plan.from = journal.from;
    plan.to = journal.to;
    plan.pools = journal.pools;
    if (isFpmInstalled(plan.from))
        return goBack(plan);
    settle(plan);
    return {};
}

Moved movePools(const MovePlan &wanted, const Say &say)
{
    MovePlan plan = wanted;
    Moved moved;
    awaitIdleAgent(kIdleSeconds);
    moved.dropped = dropNobodys(plan.nobodys);
    leaveOutGone(&plan);
    say(u"trying PHP %1 with the pools"_s.arg(plan.to));
    moved.problem = testPools(plan);
    if (!moved.problem.isEmpty())
        return moved;

    say(u"looking at the sites"_s);
    const QStringList well = plan.cutOff ? plan.cutOff->well : wellAmong(servedIn(plan, false));
    if (!keepMove({plan.from, plan.to, plan.pools, well}))
        moved.problem = u"what is being done cannot be written down in /var/lib/corvane"_s;
    if (moved.problem.isEmpty())
        moved.problem = stage(plan);
    if (!moved.problem.isEmpty() && !plan.cutOff) {
        clearStage(plan);
        removeMove();
    }
    if (!moved.problem.isEmpty())
        return moved;

    say(u"moving %1 pools"_s.arg(plan.pools.size()));
    awaitIdleAgent(kIdleSeconds);
    leaveOutGone(&plan);
    QElapsedTimer clock;
    clock.start();
    QString problem = release(plan);
    if (problem.isEmpty())
        problem = takeOver(plan);
    moved.milliseconds = clock.elapsed();
    if (!problem.isEmpty())
        return wentBack(plan, moved, problem, say);

    say(u"looking at the sites again"_s);
    moved.bad = well;
    const QStringList served = servedIn(plan, false);
    moved.bad.removeIf([&](const QString &account) { return !served.contains(account); });
    moved.bad = awaitWell(moved.bad);
    if (!moved.bad.isEmpty())
        problem = u"visitors of %1 saw a page before, and see none now"_s.arg(someOf(moved.bad));
    if (!problem.isEmpty() && plan.canGoBack)
        return wentBack(plan, moved, problem, say);
    moved.problem = problem;

    // First: what would be left of the others is read by nobody.
    removeMove();
    for (const MovingPool &pool : plan.pools) {
        moved.moved.append(pool.account);
        for (const bool isParked : {false, true})
            (void)QFile::remove(pathIn(plan.from, pool.account, isParked) + kAside);
    }
    const QString disabled = plan.empties && plan.canGoBack ? enableFpm(plan.from, false) : QString();
    moved.problem = hosting::joined({moved.problem, disabled, parkSuspended(plan)});
    return moved;
}

} // namespace corv::ctl
