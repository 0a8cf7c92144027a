#include "ctl/doctor/ExaminedParts.h"

#include "common/Account.h"
#include "common/FormerIds.h"
#include "common/Site.h"
#include "ctl/doctor/Backup.h"
#include "ctl/doctor/Believed.h"
#include "ctl/doctor/Compressor.h"
#include "ctl/doctor/Deletions.h"
#include "ctl/doctor/Facts.h"
#include "ctl/doctor/Former.h"
#include "ctl/doctor/Forwards.h"
#include "ctl/doctor/Reach.h"
#include "ctl/doctor/Restores.h"
#include "ctl/doctor/SiteAddresses.h"
#include "ctl/doctor/Visitors.h"
#include "ctl/https/View.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QThread>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kVisitMs = 3'000;
constexpr int kReloadMs = 3'000;
constexpr int kBetweenMs = 50;

QStringList namesOf(const QList<hosting::User> &users)
{
    QStringList names;
    for (const hosting::User &user : users)
        names.append(user.name);
    return names;
}

QList<AccountParts> partsOf(const QList<hosting::User> &users)
{
    const QStringList versions = phpVersions();
    QList<AccountParts> all;
    for (const hosting::User &user : users)
        all.append(readAccount(user, versions));
    // FPM reads its pools a moment after a reload was asked for.
    const QDeadlineTimer end(kReloadMs);
    for (AccountParts &account : all) {
        while (!account.unreadPools.isEmpty() && !end.hasExpired()) {
            QThread::msleep(kBetweenMs);
            account.unreadPools = unreadPools(account);
        }
    }
    return all;
}

} // namespace

Accounts readAccounts()
{
    Accounts found;
    found.all = hosting::users();
    for (const hosting::User &user : found.all) {
        if (hosting::hasMarker(user.comment))
            found.accounts.append(user);
    }
    return found;
}

Check examineFiles(const Accounts &users, const NamedParts &parts)
{
    return {u"leftovers"_s, u"sites, pools, homes"_s,
            checkLeftovers(parts, {}, namesOf(users.all), namesOf(users.accounts))};
}

Check examineAccounts(const Accounts &users, const QList<AccountSite> &sites, const QString &php,
                      const std::optional<Databases> &databases, qint64 began)
{
    QStringList suspended;
    for (const AccountSite &site : sites) {
        if (site.suspended)
            suspended.append(site.name);
    }
    const QString off =
        suspended.isEmpty() ? QString() : u", %1 suspended (%2)"_s.arg(suspended.size()).arg(someOf(suspended));
    Check check = {
        u"accounts"_s,
        u"%1%2, PHP %3"_s.arg(QString::number(users.accounts.size()), off, php.isEmpty() ? u"not installed"_s : php),
        {}};
    if (!users.atWork.isEmpty())
        check.seen += u"; without %1, which the agent is working on"_s.arg(users.atWork);
    for (const AccountParts &account : partsOf(users.accounts))
        check.findings += checkAccount(account, php, databases);
    check.findings += checkLeftovers({}, databases, namesOf(users.all), namesOf(users.accounts));
    check.findings += checkCutOff(readCutOff()) + checkLeftDrills(leftDrills(users.accounts));
    check.findings += checkRefusedDeletions(deletionArchives(kArchives, {}), namesOf(users.accounts), began);
    return check;
}

Check examineSites(const Accounts &users, const QList<VirtualHost> &hosts, const QList<AccountSite> &sites)
{
    const QList<Forward> forwards = readForwards();
    const QStringList own = outerAddresses();
    const QString led = forwards.isEmpty() ? QString() : u", %1 led on to other servers"_s.arg(forwards.size());
    return {u"sites"_s, u"%1 enabled%2"_s.arg(hosts.size()).arg(led),
            checkAddresses(hosts, own, readHttps().has_value()) +
                checkSites(withoutForwards(hosts), sites, namesOf(users.all), own) + checkForwards(forwards, sites) +
                checkBelieved(readBelieved(), sites)};
}

Check examineVisitors(const QList<VirtualHost> &hosts, const QList<AccountSite> &sites, const QString &php)
{
    const QList<SiteSight> sights = lookAt(hosts, hosts, sites, kVisitMs);
    const auto asked = std::count_if(sights.cbegin(), sights.cend(),
                                     [](const SiteSight &sight) { return sight.sight != Sight::NotAsked; });
    return {u"visitors"_s, u"%1 sites asked for their first page"_s.arg(asked), checkSights(sights, php)};
}

Check examineFormer(const Accounts &users)
{
    FormerState state = readFormer();
    for (const hosting::User &user : users.accounts) {
        if (!hosting::isAccountId(user.uid))
            state.unkeptAccounts.append(user.name);
    }
    return {u"ids"_s, u"%1 of deleted accounts kept"_s.arg(hosting::formerIds().users.size()), checkFormer(state)};
}

Check examineReach(const QList<hosting::User> &accounts)
{
    // An account without a site is only half there, which is told where accounts are.
    QStringList served = namesOf(accounts);
    served.removeIf([](const QString &name) { return !QFile::exists(hosting::sitePath(name)); });
    return {u"homes"_s, u"what the web server reaches"_s, checkReach(findOutOfReach(served))};
}

Check examineHomes(const QList<hosting::User> &accounts, const QJsonObject &status)
{
    const QHash<QString, qint64> sizes = readHomeSizes(accounts);
    // With the ordinary compressor the trial takes most of a second, and only where it matters.
    const Compressor compressor = readCompressor();
    const qint64 measured = isFast(compressor) || isNearLimit(sizes) ? measureCompressor(compressor) : 0;
    const qint64 bytesPerSecond = measured > 0 ? measured : kCautiousBytesPerSecond;
    Check check = {u"homes"_s, u"sizes (%1 fit), what the web server reaches"_s.arg(largestHome(bytesPerSecond)),
                   checkHomes(sizes, status, bytesPerSecond)};
    check.findings += examineReach(accounts).findings;
    if (sizes.isEmpty() && !accounts.isEmpty())
        check.findings.append({Level::Note, u"the homes could not be measured within a minute"_s, u"du -sh /home/*"_s});
    return check;
}

} // namespace corv::ctl
