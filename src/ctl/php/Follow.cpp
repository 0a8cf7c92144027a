#include "ctl/php/Follow.h"

#include "common/Pool.h"
#include "common/Run.h"
#include "ctl/doctor/Accounts.h"
#include "ctl/doctor/Visitors.h"
#include "ctl/php/Fpm.h"
#include "ctl/php/Move.h"
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

constexpr int kAgentSeconds = 600;
constexpr int kSocketSeconds = 15;
constexpr int kStartSeconds = 120; // of an FPM that is being installed
constexpr int kBetweenMs = 500;
constexpr int kRounds = 5;

// Has an FPM read what has changed, where it runs. One that ended with its last pool starts with the next one, which
// isServing says it has.
QString readAnew(const PhpPools &pools, bool isEmpty, bool isServing)
{
    if (!pools.isInstalled || (!isServing && !isFpmRunning(pools.version)))
        return {};
    if (isEmpty)
        return stopFpm(pools.version);
    if (const QString problem = testFpm(pools.version, {}); !problem.isEmpty())
        return u"PHP %1 would not come back from a reload: %2"_s.arg(pools.version, problem);
    return reloadFpm(pools.version);
}

// The accounts that an FPM beside the one in force serves although no version has their pool any more: the agent takes
// it away, or puts it aside, and has the one in force read anew alone.
QStringList servedWithoutPool(const QList<PhpPools> &versions)
{
    QStringList accounts = versions.size() > 1 ? accountsWithSocket() : QStringList();
    accounts.removeIf([&](const QString &account) {
        return std::any_of(versions.cbegin(), versions.cend(),
                           [&](const PhpPools &pools) { return pools.live.contains(account); });
    });
    return accounts;
}

// Puts one version's stray pools where they belong. Returns the accounts that are to be served then in served, and
// those that are not in others.
bool place(const PhpPools &pools, const QList<StrayPool> &strays, const Say &say, QStringList *served,
           QStringList *others)
{
    bool isAll = true;
    for (const StrayPool &stray : strays) {
        if (stray.version != pools.version || !pools.isInstalled)
            continue; // a version that is gone is moved from as a whole
        const QString live = hosting::poolPath(stray.version, stray.account);
        const QString aside = hosting::parkedPoolPath(stray.version, stray.account);
        if (std::rename(QFile::encodeName(stray.isParked ? aside : live).constData(),
                        QFile::encodeName(stray.isParked ? live : aside).constData()) != 0) {
            isAll = false;
            continue;
        }
        (stray.isParked ? served : others)->append(stray.account);
        say((stray.isParked ? u"put the pool of %1 in PHP %2 back, as the account is resumed"_s
                            : u"put the pool of %1 in PHP %2 aside, as the account is suspended"_s)
                .arg(stray.account, stray.version));
    }
    return isAll;
}

// Drops one version's pools of nobody and puts its stray ones where they belong; has it let go of those of unserved
// that it still serves. True when there was anything to do.
bool mend(const PhpPools &pools, const QList<StrayPool> &strays, const QStringList &unserved, const Say &say,
          QStringList *problems)
{
    const QStringList dropped = dropNobodys(pools.nobodys);
    QStringList resumed;
    QStringList ended;
    for (const QString &path : dropped) {
        say(u"removed %1, whose user is gone"_s.arg(path));
        if (path.endsWith(".conf"_L1))
            ended.append(accountOfFile(path.section(u'/', -1)));
    }
    const qsizetype gone = ended.size();
    if (!place(pools, strays, say, &resumed, &ended))
        problems->append(u"not all pools in PHP %1 could be moved"_s.arg(pools.version));
    const qsizetype parked = ended.size() - gone;
    const bool isChanged = !ended.isEmpty() || !resumed.isEmpty();
    ended.append(unserved);
    ended = pools.isInstalled ? servedBy(pools.version, ended) : QStringList();
    for (const QString &account : unserved) {
        if (ended.contains(account))
            say(u"PHP %1 is told that it serves %2 no more"_s.arg(pools.version, account));
    }
    if (!isChanged && ended.isEmpty())
        return !dropped.isEmpty();

    const bool isEmpty = !pools.hasOthers && resumed.isEmpty() && pools.live.size() <= parked;
    QString problem = readAnew(pools, isEmpty, !resumed.isEmpty());
    // One reload has to be done before the next is asked for: in between there is a moment in which it would be the
    // end.
    if (const QStringList held = problem.isEmpty() ? awaitReleased(ended, kSocketSeconds) : QStringList();
        !held.isEmpty())
        problem = u"PHP %1 does not let go of %2"_s.arg(pools.version, someOf(held));
    if (const QStringList missing = problem.isEmpty() ? awaitListening(resumed, kSocketSeconds) : QStringList();
        !missing.isEmpty())
        problem = u"PHP %1 does not serve %2"_s.arg(pools.version, someOf(missing));
    problems->append(problem);
    return true;
}

// Starts the FPM in force where it ended with its last pool and has one again: the agent, which has put that back, asks
// for a reload, and a service that has ended has none. True when it was tried.
bool startAgain(const PhpPools &pools, const Say &say, QStringList *problems)
{
    if (!pools.isInstalled || pools.hasOthers || pools.live.isEmpty() || !hasFpmFailed(pools.version))
        return false;
    QString problem = testFpm(pools.version, {});
    if (problem.isEmpty()) {
        say(u"starting PHP %1, which ended without a pool and has one again"_s.arg(pools.version));
        // It has ended without removing their names, and does not start while a process of the account has one open.
        for (const QString &account : pools.live)
            (void)QFile::remove(socketOf(account)); // most are not there
        // Where its unit has systemd start it anew it has failed more than once, each time without a pool.
        problem = forgetFailures(pools.version);
    }
    if (problem.isEmpty())
        problem = reloadFpm(pools.version);
    if (!problem.isEmpty())
        problems->append(u"PHP %1 does not start: %2"_s.arg(pools.version, problem));
    return true;
}

bool awaitRunning(const QString &version)
{
    const QDeadlineTimer end(qint64(kStartSeconds) * 1000);
    while (!isFpmRunning(version)) {
        if (end.hasExpired())
            return false;
        QThread::msleep(kBetweenMs);
    }
    return true;
}

// True when it was tried; not where the new version's FPM does not run yet, whose start brings us here again.
bool move(const QString &from, const QString &to, const Say &say, QStringList *problems)
{
    QString problem;
    QString hint;
    const std::optional<MovePlan> plan = planMove(from, to, &problem, &hint);
    if (!plan) {
        problems->append(problem);
        return true;
    }
    if (!awaitRunning(to)) {
        say(u"PHP %1 does not run, so the accounts of PHP %2 are not moved to it yet"_s.arg(to, from));
        return false;
    }
    say(u"moving %1 accounts from PHP %2 to %3"_s.arg(plan->pools.size()).arg(from, to));
    problems->append(movePools(*plan, say).problem);
    return true;
}

// Goes on with a move that was cut off, or undoes it where that cannot be. It is tried once, not for ever.
void endMove(const MoveJournal &cutOff, const Say &say, QStringList *problems)
{
    QString problem;
    QString hint;
    if (const std::optional<MovePlan> plan = planMove(cutOff.from, cutOff.to, &problem, &hint)) {
        say(u"going on with the move from PHP %1 to %2"_s.arg(cutOff.from, cutOff.to));
        problem = movePools(*plan, say).problem;
    }
    problems->append(problem);
    if (const std::optional<MoveJournal> left = readMove())
        problems->append(undoMove(*left));
    removeMove();
}

// One look at all. True when something was done, which may have come with more to do.
bool lookOnce(const Say &say, QStringList *problems)
{
    awaitIdleAgent(kAgentSeconds);
    if (const std::optional<MoveJournal> cutOff = readMove()) {
        endMove(*cutOff, say, problems);
        return true;
    }
    if (putUnreadableMoveAside())
        problems->append(u"what a move was about cannot be read; it lies in php-move.json.unreadable"_s);
    QString problem;
    const QList<PhpPools> versions = readPhpPools(&problem);
    problems->append(problem);
    const QString inForce = hosting::phpVersion();
    QHash<QString, PoolState> wanted;
    for (const PhpPools &pools : versions) {
        if (pools.version == inForce)
            continue;
        for (const QString &account : pools.live + pools.parked)
            wanted.insert(account, wantedState(account));
    }
    const QList<StrayPool> strays = strayPools(versions, inForce, wanted);
    const QStringList unserved = servedWithoutPool(versions);
    bool isDone = false;
    for (const PhpPools &pools : versions) {
        const bool isInForce = pools.version == inForce;
        isDone = mend(pools, strays, isInForce ? QStringList() : unserved, say, problems) || isDone;
        isDone = (isInForce && startAgain(pools, say, problems)) || isDone;
    }

    const bool canMove = std::any_of(versions.cbegin(), versions.cend(), [&](const PhpPools &pools) {
        return pools.version == inForce && pools.isInstalled;
    });
    for (const PhpPools &pools : versions) {
        if (pools.isInstalled || pools.version == inForce || (pools.live.isEmpty() && pools.parked.isEmpty()))
            continue;
        if (canMove)
            isDone = move(pools.version, inForce, say, problems) || isDone;
        else
            problems->append(u"PHP %1 is gone, and PHP %2 has no FPM"_s.arg(pools.version, inForce));
    }
    return isDone;
}

} // namespace

QList<StrayPool> strayPools(const QList<PhpPools> &versions, const QString &inForce,
                            const QHash<QString, PoolState> &wanted)
{
    QList<StrayPool> strays;
    for (const PhpPools &pools : versions) {
        if (pools.version == inForce)
            continue;
        for (const QString &account : pools.live) {
            if (wanted.value(account, PoolState::Any) == PoolState::Parked)
                strays.append({pools.version, account, false});
        }
        for (const QString &account : pools.parked) {
            // One that has a pool elsewhere is served there: a second would fight for its socket.
            const bool isServed = std::any_of(versions.cbegin(), versions.cend(),
                                              [&](const PhpPools &other) { return other.live.contains(account); });
            if (!isServed && wanted.value(account, PoolState::Any) == PoolState::Live)
                strays.append({pools.version, account, true});
        }
    }
    return strays;
}

QString followAccounts(const Say &say)
{
    QStringList problems;
    for (int round = 0; round < kRounds; ++round) {
        const bool isDone = lookOnce(say, &problems);
        problems.removeAll(QString());
        if (!isDone || !problems.isEmpty())
            break;
    }
    return hosting::joined(problems);
}

} // namespace corv::ctl
