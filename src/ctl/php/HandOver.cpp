#include "ctl/php/HandOver.h"

#include "ctl/doctor/PhpPools.h"
#include "ctl/doctor/Visitors.h"
#include "ctl/php/Fpm.h"
#include "ctl/php/Sockets.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QThread>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kSoonSeconds = 2;
constexpr int kSocketSeconds = 15;
constexpr int kPerhapsSeconds = 2;
constexpr int kReadingMs = 10'000;
constexpr int kStopMs = 60'000;
constexpr int kBetweenMs = 1; // others of this FPM wait meanwhile
constexpr int kStopBetweenMs = 50;

// Waits until an FPM has come to the pool that is held back. It may never.
void awaitReader(const Fd &held)
{
    const QDeadlineTimer end(kReadingMs);
    while (!isWaitedFor(held) && !end.hasExpired())
        QThread::msleep(kBetweenMs);
}

bool awaitStopped(const QString &version)
{
    const QDeadlineTimer end(kStopMs);
    while (isFpmRunning(version)) {
        if (end.hasExpired())
            return false;
        QThread::msleep(kStopBetweenMs);
    }
    return true;
}

} // namespace

QString takeOver(const QString &version, const QStringList &accounts, const QString &lastPool, qint64 *milliseconds)
{
    // One that has to be started first is waited for by systemctl, and must not wait for this.
    Fd held = !lastPool.isEmpty() && isFpmRunning(version) ? holdBack(lastPool) : Fd();
    QElapsedTimer clock;
    QString problem;
    if (held) {
        problem = askForReload(version);
        if (!problem.isEmpty())
            return problem;
        awaitReader(held);
    }
    clock.start();
    putAside(accounts);
    if (held)
        held.reset();
    else
        problem = reloadFpm(version);
    QStringList missing = problem.isEmpty() ? awaitListening(accounts, kSoonSeconds) : QStringList();
    // One that has failed is not waited for: the other can be given the names again.
    if (!missing.isEmpty() && isFpmRunning(version))
        missing = awaitListening(missing, kSocketSeconds);
    *milliseconds = clock.elapsed();
    if (!missing.isEmpty())
        problem = u"PHP %1 does not serve %2"_s.arg(version, someOf(missing));
    return problem;
}

QString letGo(const QString &version, const QStringList &accounts, const QStringList &perhaps)
{
    const bool isEmpty = !hasPools(version);
    // One that is down has let go already, and is waited for where it is started.
    if (!isFpmRunning(version))
        return isEmpty ? QString() : reloadFpm(version);
    keepNames(accounts + perhaps);
    if (QString problem = isEmpty ? askForStop(version) : askForReload(version); !problem.isEmpty())
        return problem;
    const QStringList left = awaitNamesLost(accounts, kSocketSeconds);
    (void)awaitNamesLost(perhaps, kPerhapsSeconds);
    if (isEmpty && !awaitStopped(version))
        return u"PHP %1 does not stop"_s.arg(version);
    if (!isEmpty && !isFpmRunning(version))
        return u"PHP %1 has not come back from its reload"_s.arg(version);
    return left.isEmpty() ? QString() : u"PHP %1 does not let go of %2"_s.arg(version, someOf(left));
}

} // namespace corv::ctl
