#include "ctl/php/SiteLook.h"

#include "ctl/doctor/Accounts.h"
#include "ctl/doctor/SiteFacts.h"
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
    QList<VirtualHost> hosts = readSites();
    hosts.removeIf([&](const VirtualHost &host) { return !accounts.contains(accountOfFile(host.site + u".conf"_s)); });
    QStringList well;
    for (const SiteSight &sight : sightsOf(hosts, readAccountSites(), visit(visitsTo(hosts), kVisitMs))) {
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
