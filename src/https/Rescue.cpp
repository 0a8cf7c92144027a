#include "https/Choice.h"
#include "https/Orders.h"
#include "https/Store.h"
#include "https/Sync.h"
#include "https/Work.h"

#include "common/AtomicFile.h"
#include "common/HttpsFiles.h"
#include "common/HttpsOptions.h"
#include "common/TimedRun.h"

#include <QDateTime>

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

// After so long all of it is tried again, twice as long after each further time, and a day at most.
constexpr qint64 kFirstSeconds = 600;
constexpr qint64 kLongestSeconds = 86400;
constexpr int kMostRescues = 10;
constexpr int kStartMilliseconds = 100000;

// Its time is when Apache was last started from here.
constexpr auto kStartedFile = "/run/corvane/https/started";
constexpr qint64 kLatelySeconds = 60;

bool isEmpty(const char *path)
{
    struct stat status = {};
    return ::stat(path, &status) != 0 || status.st_size == 0;
}

bool wasStartedLately()
{
    struct stat status = {};
    return ::stat(kStartedFile, &status) == 0 &&
           QDateTime::currentSecsSinceEpoch() < status.st_mtim.tv_sec + kLatelySeconds;
}

// After an end by a signal systemd starts it again by itself; newer versions call for the rescue all the same.
bool isComingBack()
{
    const QStringList words = {u"show"_s, u"--property=ActiveState"_s, u"--value"_s, u"apache2.service"_s};
    const QByteArray state = runWithin(kStartMilliseconds, u"systemctl"_s, words).output.trimmed();
    return state == "active" || state == "activating" || state == "reloading";
}

int startApache()
{
    if (!replaceFile(QString::fromLatin1(kStartedFile), "x", 0600))
        say(u"cannot write %1"_s.arg(QLatin1StringView(kStartedFile)));
    (void)runWithin(kStartMilliseconds, u"systemctl"_s, {u"reset-failed"_s, u"apache2.service"_s}); // may not count
    const Outcome outcome =
        runWithin(kStartMilliseconds, u"systemctl"_s, {u"start"_s, u"--no-block"_s, u"apache2.service"_s});
    return outcome.succeeded ? 0 : 1;
}

// Takes back what the last rescue has put off: Apache has ended again without any of it, so that it was for something
// else, and whoever mends that has HTTPS again with the next start. What is generated then is tried first, as ever.
void takeLastBack()
{
    State state = loadState();
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    if (state.rescuedUntil <= now)
        return;
    state.rescues = std::max(state.rescues - 1, 0);
    state.rescuedUntil = now;
    state.none.clear();
    saveState(state);
    say(u"Apache ended without HTTPS as well; what is wrong is not the sites on port 443"_s);
}

} // namespace

int again()
{
    if (!makeFolders())
        return 1;
    const Fd lock = takeLock(kByReload.lockMilliseconds);
    forgetProof();
    State state = loadState();
    state.rescues = 0;
    state.rescuedUntil = 0;
    for (SiteState &site : state.sites)
        site.refused.clear();
    for (NameState &name : state.names)
        name.nextAt = 0;
    // A pause that is over, and not none: what is tried again is an order that counts.
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    for (auto order = state.orders.begin(); order != state.orders.end(); ++order) {
        order->nextAt = order->failures > 0 ? now : 0;
        if (order->failures > 0)
            forgetJob(order.key());
    }
    saveState(state);
    return leaveNote("again") ? 0 : 1;
}

int rescue()
{
    if (!isOn())
        return 0;
    const Fd lock = takeLock(kByReload.lockMilliseconds);
    if (isComingBack())
        return 0;
    forgetProof();
    // It may have ended with what was there a moment ago and has been taken away since. Where it ends again without any
    // of it, that is for reasons of its own.
    if (isEmpty(kLiveFile)) {
        if (!wasStartedLately())
            return startApache();
        takeLastBack();
        return 0;
    }
    State state = loadState();
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    state.rescues = now > state.rescuedUntil + kLongestSeconds ? 1 : std::min(state.rescues + 1, kMostRescues);
    state.rescuedUntil = now + std::min(kFirstSeconds << (state.rescues - 1), kLongestSeconds);
    state.none = u"Apache ended with the sites on port 443"_s;
    // Kept for whoever wants to know why.
    if (::rename(kLiveFile, "/run/corvane/https/sites.failed") != 0 && ::unlink(kLiveFile) != 0) {
        say(u"cannot take %1 away"_s.arg(QLatin1StringView(kLiveFile)));
        return 1;
    }
    saveState(state);
    say(u"Apache ended; it is started without HTTPS, which is tried again in %1 minutes"_s.arg(
        (state.rescuedUntil - now) / 60));
    return startApache();
}

} // namespace corv::https
