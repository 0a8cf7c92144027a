#include "ctl/php/SiteLook.h"

#include "ctl/doctor/Accounts.h"
#include "ctl/doctor/Visitors.h"

#include <QDeadlineTimer>
#include <QThread>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kVisitMs = 5'000;
constexpr int kSitesMs = 15'000;
constexpr int kBetweenMs = 100;

} // namespace

QStringList wellAmong(const QStringList &accounts)
{
    const auto isWanted = [&](const QString &site) { return accounts.contains(accountOfFile(site + u".conf"_s)); };
    QStringList well;
    for (const SiteSight &sight : lookAtSites(kVisitMs, isWanted)) {
        if (sight.sight == Sight::Well)
            well.append(accountOfFile(sight.site + u".conf"_s));
    }
    return well;
}

QStringList awaitWell(const QStringList &accounts)
{
    const QDeadlineTimer end(kSitesMs);
    QStringList left = accounts;
    for (;;) {
        const QStringList well = left.isEmpty() ? left : wellAmong(left);
        left.removeIf([&](const QString &account) { return well.contains(account); });
        if (left.isEmpty() || end.hasExpired())
            return left;
        QThread::msleep(kBetweenMs);
    }
}

} // namespace corv::ctl
