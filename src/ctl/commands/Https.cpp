#include "ctl/commands/Https.h"

#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/https/View.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QDateTime>
#include <QJsonArray>
#include <QMap>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// What the large public authority counts: orders in three hours (300), failures for a name in an hour (5), certificates
// for a domain with all that is below it in a week (50).
constexpr qint64 kOrdersWindow = qint64{3} * 3600;
constexpr qint64 kFailuresWindow = 3600;
constexpr qint64 kWeek = qint64{7} * 86400;

Colour colourOf(HttpsSite::Stage stage)
{
    switch (stage) {
    case HttpsSite::Stage::Served:
        return Colour::Good;
    case HttpsSite::Stage::Waiting:
    case HttpsSite::Stage::Ending:
        return Colour::Warning;
    case HttpsSite::Stage::LeftOut:
    case HttpsSite::Stage::Expired:
        return Colour::Bad;
    case HttpsSite::Stage::Off:
        break;
    }
    return Colour::None;
}

void printJson(const Session &session, const QJsonObject &object)
{
    const QByteArray line = compactJson(object);
    print((session.terminal.out ? escapedJson(line) : line) + '\n');
}

QJsonObject asJson(const HttpsSite &site)
{
    QJsonObject object{{u"username"_s, site.account},
                       {u"domain"_s, site.domain},
                       {u"names"_s, QJsonArray::fromStringList(site.names)},
                       {u"state"_s, stageWord(site.stage)},
                       {u"remark"_s, site.remark},
                       {u"brought"_s, site.isOwn}};
    if (site.ends > 0)
        object.insert(u"validUntil"_s, site.ends);
    return object;
}

int list(Session &session, const Given &)
{
    if (const std::optional<int> end = refuseUnlessHere(session, u"https list"_s))
        return *end;
    const std::optional<https::State> state = readHttps();
    if (!state)
        return refuse(session, u"HTTPS is off"_s, u"corvctl https on switches it on"_s);
    const QList<HttpsSite> sites = readHttpsSites(*state, QDateTime::currentSecsSinceEpoch());
    if (session.options.json) {
        QJsonArray all;
        for (const HttpsSite &site : sites)
            all.append(asJson(site));
        printJson(session, {{u"ok"_s, true}, {u"sites"_s, all}});
        return kDone;
    }
    QList<Row> rows;
    for (const HttpsSite &site : sites)
        rows.append({text(site.account), text(site.domain), text(stageWord(site.stage), colourOf(site.stage)),
                     site.ends > 0 ? time(site.ends) : nothing(), text(site.remark)});
    printTable(session, {u"ACCOUNT"_s, u"DOMAIN"_s, u"HTTPS"_s, u"UNTIL"_s, u"REMARK"_s}, rows);
    return kDone;
}

struct Counts
{
    qint64 served = 0;
    qint64 waiting = 0;
    qint64 leftOut = 0;
    qint64 nextEnd = 0;
};

Counts countSites(const QList<HttpsSite> &sites)
{
    Counts counts;
    for (const HttpsSite &site : sites) {
        counts.leftOut += site.stage == HttpsSite::Stage::LeftOut || site.stage == HttpsSite::Stage::Off ? 1 : 0;
        counts.waiting += site.stage == HttpsSite::Stage::Waiting ? 1 : 0;
        counts.served += site.ends > 0 ? 1 : 0;
        if (site.ends > 0 && (counts.nextEnd == 0 || site.ends < counts.nextEnd))
            counts.nextEnd = site.ends;
    }
    return counts;
}

// The certificates of a week.
struct Week
{
    qint64 all = 0;
    qint64 most = 0; // below one domain
    QString domain;  // that one
};

Week countWeek(const QList<HttpsSite> &sites, qint64 now)
{
    Week week;
    QMap<QString, qint64> byDomain;
    for (const HttpsSite &site : sites) {
        if (site.isOwn || site.ends == 0 || site.begins < now - kWeek)
            continue;
        ++week.all;
        // Below "co.uk" and its kind that is one domain for too many, which errs on the safe side.
        const qint64 count = ++byDomain[site.domain.section(u'.', -2)];
        if (count > week.most) {
            week.most = count;
            week.domain = site.domain.section(u'.', -2);
        }
    }
    return week;
}

int status(Session &session, const Given &)
{
    if (const std::optional<int> end = refuseUnlessHere(session, u"https status"_s))
        return *end;
    const std::optional<https::State> state = readHttps();
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    const https::State kept = state.value_or(https::State());
    const QList<HttpsSite> sites = readHttpsSites(kept, now);
    const Counts counts = countSites(sites);
    const Week week = countWeek(sites, now);
    const auto orders = std::count_if(kept.orders.begin(), kept.orders.end(), [&](const https::OrderState &order) {
        return order.startedAt > now - kOrdersWindow;
    });
    const auto failed = std::count_if(kept.orders.begin(), kept.orders.end(), [&](const https::OrderState &order) {
        return order.failedAt > now - kFailuresWindow;
    });
    if (session.options.json) {
        printJson(session, {{u"ok"_s, true},
                            {u"on"_s, state.has_value()},
                            {u"problem"_s, kept.none},
                            {u"served"_s, counts.served},
                            {u"waiting"_s, counts.waiting},
                            {u"leftOut"_s, counts.leftOut},
                            {u"nextEnd"_s, counts.nextEnd},
                            {u"ordersInThreeHours"_s, static_cast<qint64>(orders)},
                            {u"failedInOneHour"_s, static_cast<qint64>(failed)},
                            {u"certificatesInOneWeek"_s, week.all},
                            {u"mostBelowOneDomain"_s, week.most},
                            {u"rehearsed"_s, kept.rehearsed},
                            {u"milliseconds"_s, kept.milliseconds},
                            {u"at"_s, kept.at}});
        return kDone;
    }
    if (!state) {
        printFacts(session, {{u"HTTPS"_s, text(u"off"_s)}});
        return kDone;
    }
    const bool isWell = kept.none.isEmpty();
    printFacts(
        session,
        {{u"HTTPS"_s, isWell ? text(u"on"_s, Colour::Good) : text(u"none: "_s + kept.none, Colour::Bad)},
         {u"Certificates"_s, number(counts.served)},
         {u"Waiting"_s, number(counts.waiting)},
         {u"Left out"_s, number(counts.leftOut)},
         {u"First end"_s, counts.nextEnd > 0 ? time(counts.nextEnd) : nothing()},
         {u"New in 3 hours"_s, number(orders)},
         {u"Failed in 1 hour"_s, number(failed)},
         {u"In 1 week"_s,
          text(week.most > 1 ? u"%1, %2 of these below %3"_s.arg(week.all).arg(week.most).arg(week.domain)
                             : QString::number(week.all))},
         {u"Rehearsal"_s, kept.rehearsed ? text(u"before each reload"_s)
                                         : text(u"not possible here, the syntax alone is tested"_s, Colour::Warning)},
         {u"Last reload"_s, kept.at > 0 ? time(kept.at) : nothing()},
         {u"It took"_s, text(u"%1 ms"_s.arg(kept.milliseconds))}});
    return kDone;
}

} // namespace

Command httpsCommand()
{
    return {"https",
            "HTTPS for the accounts' sites",
            {},
            nullptr,
            {{"on", "Switch HTTPS on for all accounts; certificates come and renew by themselves", {}, httpsOn},
             {"off", "Switch HTTPS off for all accounts; certificates are kept", {}, httpsOff},
             {"status", "Tell how HTTPS is doing", {}, status},
             {"list", "List each account's site with its certificate, or why it has none", {}, list}}};
}

} // namespace corv::ctl
