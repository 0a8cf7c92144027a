#include "ctl/restore/Look.h"

#include "common/Site.h"
#include "ctl/doctor/Visitors.h"

#include <QDeadlineTimer>
#include <QThread>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kVisitMs = 5'000;
constexpr int kWaitMs = 10'000;
constexpr int kBetweenMs = 250;

} // namespace

Seen lookAtSite(const QString &account, bool isSuspended)
{
    const QDeadlineTimer end(kWaitMs);
    Seen seen;
    do {
        const QList<SiteSight> sights =
            lookAtSites(kVisitMs, [&](const QString &site) { return site == hosting::siteName(account); });
        if (sights.isEmpty()) {
            seen.text = u"Apache has no site of %1"_s.arg(account);
        } else {
            const SiteSight &sight = sights.first();
            seen.text = u"http://%1/ answers: %2"_s.arg(sight.host, seenText(sight));
            seen.isWell = isSuspended ? sight.sight == Sight::Suspended : sight.sight == Sight::Well;
        }
        if (!seen.isWell)
            QThread::msleep(kBetweenMs);
    } while (!seen.isWell && !end.hasExpired());
    if (isSuspended && seen.isWell)
        seen.text += u", since the account is suspended as it was"_s;
    return seen;
}

} // namespace corv::ctl
