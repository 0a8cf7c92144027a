#include "ctl/doctor/SiteNames.h"

#include "ctl/doctor/SiteAddresses.h"

#include <QHash>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qsizetype kShownNames = 3;
const auto kAll = u"*"_s;

bool isPattern(const QString &name)
{
    return name.contains(u'*') || name.contains(u'?');
}

// What is served to the visitors of one place: the names there, and the patterns, each with the site that has it first.
struct Served
{
    QHash<QString, QString> names;
    QList<std::pair<QString, QString>> patterns;
};

QString holderAt(const Served &place, const QString &name)
{
    if (const auto found = place.names.constFind(name); found != place.names.cend())
        return *found;
    if (isPattern(name))
        return {};
    const auto found = std::find_if(place.patterns.cbegin(), place.patterns.cend(),
                                    [&name](const auto &pattern) { return fitsName(name, pattern.first); });
    return found == place.patterns.cend() ? QString() : found->second;
}

void addDouble(const QString &first, const QString &second, const QString &name, QList<DoubleName> *doubles)
{
    auto found = std::find_if(doubles->begin(), doubles->end(),
                              [&](const DoubleName &one) { return one.first == first && one.second == second; });
    if (found == doubles->end())
        found = doubles->insert(doubles->end(), {first, second, {}});
    if (!found->names.contains(name))
        found->names.append(name);
}

void addHost(const VirtualHost &host, Served *place, QList<DoubleName> *doubles)
{
    for (const QString &name : host.names) {
        const QString holder = holderAt(*place, name);
        if (isPattern(name))
            place->patterns.append({name, host.site});
        if (holder.isEmpty())
            place->names.insert(name, host.site);
        else if (holder != host.site)
            addDouble(holder, host.site, name, doubles);
    }
}

// A place as a key: what is written in several ways is one.
QString keyOf(const QString &address, int port)
{
    return u"%1 %2"_s.arg(address, QString::number(port));
}

} // namespace

QList<DoubleName> doubleNames(const QList<VirtualHost> &hosts, const QStringList &own)
{
    QHash<QString, Served> places;
    QList<DoubleName> doubles;
    // The places at which those with * are hidden, by their ports.
    QHash<int, QStringList> before;
    for (const VirtualHost &host : hosts) {
        for (const QString &listen : host.listens) {
            const Reached place = reachedAt(listen);
            addHost(host, &places[keyOf(place.address, place.port)], &doubles);
            if (takesVisitors(place, own) && !before[place.port].contains(place.address))
                before[place.port].append(place.address);
        }
    }
    for (const VirtualHost &host : hosts) {
        for (const QString &listen : host.listens) {
            const Reached place = reachedAt(listen);
            for (const QString &address : place.address == kAll ? before.value(place.port) : QStringList())
                addHost(host, &places[keyOf(address, place.port)], &doubles);
        }
    }
    return doubles;
}

QList<Finding> checkDoubleNames(const QList<DoubleName> &doubles)
{
    QList<Finding> findings;
    for (const DoubleName &one : doubles) {
        findings.append(
            {Level::Fault,
             u"the sites %1 and %2 both answer to %3; visitors get those of %1"_s.arg(one.first, one.second,
                                                                                      listedNames(one.names)),
             u"grep -inE 'Server(Name|Alias)' /etc/apache2/sites-enabled/%1 /etc/apache2/sites-enabled/%2"_s.arg(
                 shellWord(one.first + u".conf"_s), shellWord(one.second + u".conf"_s))});
    }
    return findings;
}

bool areDoubles(const QList<DoubleName> &doubles, const QString &one, const QString &other)
{
    return std::any_of(doubles.cbegin(), doubles.cend(), [&](const DoubleName &both) {
        return (both.first == one && both.second == other) || (both.first == other && both.second == one);
    });
}

QString listedNames(const QStringList &names)
{
    if (names.size() <= kShownNames)
        return names.join(", "_L1);
    return u"%1 and %2 more"_s.arg(names.first(kShownNames).join(", "_L1)).arg(names.size() - kShownNames);
}

} // namespace corv::ctl
