#include "common/HttpsState.h"

#include "common/Json.h"

#include <QJsonArray>
#include <QJsonObject>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

SiteState siteFrom(const QJsonObject &object)
{
    SiteState site;
    site.domain = object.value("domain"_L1).toString();
    for (const QJsonValue name : object.value("names"_L1).toArray())
        site.names.append(name.toString());
    site.leftOut = object.value("leftOut"_L1).toString();
    site.withoutWww = object.value("withoutWww"_L1).toString();
    site.refused = object.value("refused"_L1).toString();
    site.refusedAt = object.value("refusedAt"_L1).toInteger();
    return site;
}

QJsonObject objectOf(const SiteState &site)
{
    return {{u"domain"_s, site.domain},   {u"names"_s, QJsonArray::fromStringList(site.names)},
            {u"leftOut"_s, site.leftOut}, {u"withoutWww"_s, site.withoutWww},
            {u"refused"_s, site.refused}, {u"refusedAt"_s, site.refusedAt}};
}

NameState nameFrom(const QJsonObject &object)
{
    return {object.value("leadsHere"_L1).toBool(), object.value("said"_L1).toString(),
            object.value("seenAt"_L1).toInteger(), object.value("nextAt"_L1).toInteger(),
            object.value("misses"_L1).toInt()};
}

QJsonObject objectOf(const NameState &name)
{
    return {{u"leadsHere"_s, name.leadsHere},
            {u"said"_s, name.said},
            {u"seenAt"_s, name.seenAt},
            {u"nextAt"_s, name.nextAt},
            {u"misses"_s, name.misses}};
}

OrderState orderFrom(const QJsonObject &object)
{
    return {object.value("failures"_L1).toInt(), object.value("said"_L1).toString(),
            object.value("failedAt"_L1).toInteger(), object.value("nextAt"_L1).toInteger(),
            object.value("startedAt"_L1).toInteger()};
}

QJsonObject objectOf(const OrderState &order)
{
    return {{u"failures"_s, order.failures},
            {u"said"_s, order.said},
            {u"failedAt"_s, order.failedAt},
            {u"nextAt"_s, order.nextAt},
            {u"startedAt"_s, order.startedAt}};
}

// Each member of the object under key, read by from.
template <typename Value>
QMap<QString, Value> mapFrom(const QJsonObject &object, QLatin1StringView key, Value (*from)(const QJsonObject &))
{
    QMap<QString, Value> map;
    const QJsonObject members = object.value(key).toObject();
    for (auto member = members.begin(); member != members.end(); ++member)
        map.insert(member.key(), from(member.value().toObject()));
    return map;
}

template <typename Value>
QJsonObject objectOfMap(const QMap<QString, Value> &map)
{
    QJsonObject object;
    for (auto entry = map.begin(); entry != map.end(); ++entry)
        object.insert(entry.key(), objectOf(entry.value()));
    return object;
}

} // namespace

bool holdsState(const QByteArray &json)
{
    return !parseObject(json).isEmpty();
}

State parseState(const QByteArray &json)
{
    const QJsonObject object = parseObject(json);
    State state;
    state.sites = mapFrom(object, "sites"_L1, siteFrom);
    state.names = mapFrom(object, "names"_L1, nameFrom);
    state.orders = mapFrom(object, "orders"_L1, orderFrom);
    const QJsonObject warned = object.value("warned"_L1).toObject();
    for (auto one = warned.begin(); one != warned.end(); ++one)
        state.warned.insert(one.key(), one.value().toInt());
    const QJsonObject missed = object.value("missed"_L1).toObject();
    for (auto one = missed.begin(); one != missed.end(); ++one)
        state.missed.insert(one.key(), one.value().toInteger());
    state.none = object.value("none"_L1).toString();
    state.rescues = object.value("rescues"_L1).toInt();
    state.rescuedUntil = object.value("rescuedUntil"_L1).toInteger();
    state.rehearsed = object.value("rehearsed"_L1).toBool(true);
    state.milliseconds = object.value("milliseconds"_L1).toInt();
    state.rehearsals = object.value("rehearsals"_L1).toInt();
    state.at = object.value("at"_L1).toInteger();
    return state;
}

QByteArray stateText(const State &state)
{
    QJsonObject warned;
    for (auto one = state.warned.begin(); one != state.warned.end(); ++one)
        warned.insert(one.key(), one.value());
    QJsonObject missed;
    for (auto one = state.missed.begin(); one != state.missed.end(); ++one)
        missed.insert(one.key(), one.value());
    const QJsonObject object{{u"sites"_s, objectOfMap(state.sites)},
                             {u"names"_s, objectOfMap(state.names)},
                             {u"orders"_s, objectOfMap(state.orders)},
                             {u"warned"_s, warned},
                             {u"missed"_s, missed},
                             {u"none"_s, state.none},
                             {u"rescues"_s, state.rescues},
                             {u"rescuedUntil"_s, state.rescuedUntil},
                             {u"rehearsed"_s, state.rehearsed},
                             {u"milliseconds"_s, state.milliseconds},
                             {u"rehearsals"_s, state.rehearsals},
                             {u"at"_s, state.at}};
    return compactJson(object) + '\n';
}

} // namespace corv::https
