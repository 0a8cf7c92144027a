#include "ctl/commands/AccountSites.h"

#include "common/Account.h"
#include "common/Json.h"
#include "common/Site.h"
#include "ctl/Session.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/remote/Remote.h"

#include <QJsonArray>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kThereSeconds = 60;

// The account of the other server, other than this one, that has the domain.
QString accountWith(const Session &session, const QString &domain, const QString &account, bool *isTold)
{
    const Distant list = runThere(session.options, {u"corvctl"_s, u"account"_s, u"list"_s, u"--json"_s}, kThereSeconds);
    const QJsonObject answer = parseObject(list.output);
    *isTold = answer.value("accounts"_L1).isArray();
    for (const auto &value : answer.value("accounts"_L1).toArray()) {
        const QJsonObject other = value.toObject();
        const QString name = other.value("username"_L1).toString();
        if (name != account && other.value("domain"_L1).toString() == domain)
            return name;
    }
    return {};
}

} // namespace

std::optional<int> refuseTaken(const Session &session, const QString &domain, const QString &account,
                               std::optional<bool> isForced, const QString &otherwise)
{
    const QString name = hosting::normalDomain(domain);
    if (session.options.printOnly || name.isEmpty())
        return {};

    QString holder;
    bool isTold = true;
    if (session.options.hosts.empty()) {
        holder = holderHere(name, account);
    } else {
        const QString other = accountWith(session, name, account, &isTold);
        holder = other.isEmpty() ? QString() : u"the account %1"_s.arg(other);
    }
    if (!isTold)
        note(u"whether %1 is taken there could not be told"_s.arg(name));
    if (holder.isEmpty())
        return {};

    const QString sentence = u"%1 already answers to %2 or www.%2 on this server"_s.arg(holder, name);
    if (isForced.value_or(false)) {
        note(sentence);
        return {};
    }
    const QString hint =
        isForced ? u"choose another domain; --force takes it all the same"_s : u"choose another domain"_s;
    return refuse(session, sentence + u", and Apache would serve only one of the two"_s,
                  otherwise.isEmpty() ? hint : otherwise);
}

std::optional<int> refuseLong(const Session &session, const QString &domain)
{
    const qsizetype length = hosting::normalDomain(domain).size();
    if (session.options.printOnly || length <= hosting::kLongestRotatedDomain)
        return {};
    return refuse(session,
                  u"that domain has %1 characters, too many for the names of its logs: none of Apache's logs would be "
                  "rotated any more"_s.arg(length),
                  u"choose one of at most %1 characters"_s.arg(hosting::kLongestRotatedDomain));
}

QStringList findSitesBeside(const Session &session, const QString &account)
{
    QStringList sites;
    if (session.options.printOnly || !hosting::validUsername(account))
        return sites;
    if (session.options.hosts.empty())
        return sitesBeside(readSites(), account, hosting::domainOf(account));
    const Distant shown =
        runThere(session.options, {u"corvctl"_s, u"account"_s, u"show"_s, account, u"--json"_s}, kThereSeconds);
    for (const auto &site : parseObject(shown.output).value("sitesBeside"_L1).toArray())
        sites.append(site.toString());
    return sites;
}

void warnOfSites(const QStringList &sites, const QString &account)
{
    for (const QString &site : sites)
        note(u"the site %1 serves %2 too, and stays on line"_s.arg(site, account));
}

void tellOfSitesLeft(const Session &session, const QStringList &sites)
{
    QStringList left = sites;
    if (session.options.hosts.empty()) {
        const QList<VirtualHost> hosts = readSites();
        left.removeIf([&hosts](const QString &site) {
            return std::none_of(hosts.cbegin(), hosts.cend(),
                                [&site](const VirtualHost &host) { return host.site == site; });
        });
    }
    if (left.isEmpty())
        return;
    note(u"still on line: %1; to take it off: %2"_s.arg(left.join(", "_L1), disableSites(left)));
}

} // namespace corv::ctl
