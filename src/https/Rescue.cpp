#include "https/Store.h"
#include "https/Sync.h"
#include "https/Work.h"

#include "common/HttpsOptions.h"
#include "common/Paths.h"
#include "common/TimedRun.h"

#include <QDateTime>
#include <QFile>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

// After so long all of it is tried again, twice as long after each further time, and a day at most.
constexpr qint64 kFirstSeconds = 600;
constexpr qint64 kLongestSeconds = 86400;
constexpr int kMostRescues = 10;
constexpr int kStartMilliseconds = 100000;

} // namespace

int again()
{
    if (!makeFolders())
        return 1;
    const Fd lock = takeLock();
    State state = loadState();
    state.rescues = 0;
    state.rescuedUntil = 0;
    for (SiteState &site : state.sites)
        site.refused.clear();
    for (NameState &name : state.names)
        name.nextAt = 0;
    for (OrderState &order : state.orders)
        order.nextAt = 0;
    saveState(state);
    return leaveNote("again") ? 0 : 1;
}

int rescue()
{
    const QString live = QString::fromLatin1(kLiveFile);
    if (!isOn() || !exists(live) || QFile(live).size() == 0)
        return 0; // it ended for reasons of its own
    const Fd lock = takeLock();
    State state = loadState();
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    state.rescues = now > state.rescuedUntil + kLongestSeconds ? 1 : std::min(state.rescues + 1, kMostRescues);
    state.rescuedUntil = now + std::min(kFirstSeconds << (state.rescues - 1), kLongestSeconds);
    state.none = u"Apache ended with the sites on port 443"_s;
    // Kept for whoever wants to know why.
    if (::rename(kLiveFile, "/run/corvane/https/sites.failed") != 0 && !QFile::remove(live)) {
        say(u"cannot take %1 away"_s.arg(live));
        return 1;
    }
    saveState(state);
    say(u"Apache ended; it is started without HTTPS, which is tried again in %1 minutes"_s.arg(
        (state.rescuedUntil - now) / 60));
    (void)runWithin(kStartMilliseconds, u"systemctl"_s, {u"reset-failed"_s, u"apache2.service"_s}); // may not count
    const Outcome outcome =
        runWithin(kStartMilliseconds, u"systemctl"_s, {u"start"_s, u"--no-block"_s, u"apache2.service"_s});
    return outcome.succeeded ? 0 : 1;
}

} // namespace corv::https
