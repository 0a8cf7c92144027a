#include "ctl/commands/StatusHere.h"

#include "common/Json.h"
#include "common/Pool.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/commands/BackupVerdicts.h"
#include "ctl/doctor/Https.h"
#include "ctl/doctor/Offsite.h"
#include "ctl/doctor/Services.h"
#include "ctl/doctor/SiteAddresses.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/doctor/Updates.h"
#include "ctl/doctor/Visitors.h"
#include "ctl/https/View.h"
#include "ctl/notify/Failures.h"
#include "ctl/remote/Remote.h"

#include <QJsonArray>
#include <QSettings>
#include <QStringList>

#include <algorithm>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kVisitMs = 1'000;
constexpr int kThereSeconds = 60;

// Members of the JSON that are read where they were written, and elsewhere.
const auto kLines = u"lines"_s;
const auto kTopic = u"topic"_s;
const auto kText = u"text"_s;
const auto kAttention = u"attention"_s;
const auto kBackup = u"backup"_s;

const auto kNotTold = u"automatic updates, verified backups, off-site copies, certificates, failed services"_s;

// The words of the JSON for what visitors see.
constexpr std::pair<Sight, QLatin1StringView> kSights[] = {
    {Sight::Well, "well"_L1},         {Sight::Suspended, "suspended"_L1}, {Sight::OwnError, "own error"_L1},
    {Sight::Broken, "broken"_L1},     {Sight::Open, "open"_L1},           {Sight::Stale, "stale"_L1},
    {Sight::NotAsked, "not asked"_L1}};

QString wordOf(Sight sight)
{
    return std::find_if(std::begin(kSights), std::end(kSights), [&](const auto &one) { return one.first == sight; })
        ->second;
}

QJsonArray servicesHere()
{
    QJsonArray all;
    for (const auto &[name, unit] : readServices(neededServices(hosting::phpVersion()))) {
        const bool exists = unit.value(u"LoadState"_s) != "not-found"_L1;
        all.append(QJsonObject{{u"name"_s, name},
                               {u"active"_s, unit.value(u"ActiveState"_s) == "active"_L1},
                               {u"state"_s, exists ? unit.value(u"SubState"_s) : u"not installed"_s}});
    }
    return all;
}

QJsonArray sitesHere()
{
    QJsonArray all;
    for (const SiteSight &sight : lookAtSites(kVisitMs)) {
        QJsonObject site = {{u"site"_s, sight.site},
                            {u"host"_s, sight.host},
                            {u"port"_s, sight.port},
                            {u"seen"_s, wordOf(sight.sight)}};
        if (sight.status != 0)
            site.insert(u"status"_s, sight.status);
        if (sight.sight != Sight::Well && sight.sight != Sight::NotAsked)
            site.insert(u"what"_s, seenText(sight));
        all.append(site);
    }
    return all;
}

// The line about something, or a new one behind all others.
StatusLine &lineOf(const QString &topic, QList<StatusLine> *lines)
{
    const auto found =
        std::find_if(lines->begin(), lines->end(), [&topic](const StatusLine &line) { return line.topic == topic; });
    return found == lines->end() ? *lines->insert(lines->end(), {topic, {}, false}) : *found;
}

void addServices(const QJsonArray &services, StatusLine *line)
{
    const QString running = u" running"_s;
    QStringList up;
    QStringList down;
    for (const auto &value : services) {
        const QJsonObject service = value.toObject();
        const QString name = service.value("name"_L1).toString();
        if (service.value("active"_L1).toBool())
            up.append(name);
        else
            down.append(u"%1 is %2"_s.arg(name, service.value("state"_L1).toString()));
    }
    if (!up.isEmpty()) {
        line->text = line->text.endsWith(running) ? line->text.chopped(running.size()) + u", "_s : line->text + u"; "_s;
        line->text += up.join(u", "_s) + running;
    }
    if (!down.isEmpty()) {
        line->text = down.join(u"; "_s) + u"; "_s + line->text;
        line->needsAttention = true;
    }
}

// Those that visitors see something wrong with, by what they see.
StatusLine sitesLine(const QJsonArray &sites)
{
    qsizetype asked = 0;
    qsizetype suspended = 0;
    QStringList order;
    QHash<QString, QStringList> wrong;
    for (const auto &value : sites) {
        const QJsonObject site = value.toObject();
        const QString seen = site.value("seen"_L1).toString();
        if (seen == wordOf(Sight::NotAsked))
            continue;
        ++asked;
        if (seen == wordOf(Sight::Suspended))
            ++suspended;
        if (seen == wordOf(Sight::Well) || seen == wordOf(Sight::Suspended))
            continue;
        const QString what = seen == wordOf(Sight::Open) ? u"suspended, but open"_s : site.value("what"_L1).toString();
        if (!wrong.contains(what))
            order.append(what);
        wrong[what].append(site.value("host"_L1).toString());
    }
    const QString off = suspended > 0 ? u", %1 suspended"_s.arg(suspended) : QString();
    if (order.isEmpty())
        return {u"Sites"_s, (asked == 0 ? u"none"_s : u"%1 answer as they should"_s.arg(asked)) + off, false};
    QStringList parts;
    for (const QString &what : order)
        parts.append(u"%1: %2"_s.arg(what, someOf(wrong.value(what))));
    return {u"Sites"_s, u"%1 (%2 asked%3)"_s.arg(parts.join(u"; "_s), QString::number(asked), off), true};
}

// Where the settings name a place for copies of the backups, and the caller may know.
void addOffsite(const Session &session, qint64 now, QList<StatusLine> *lines)
{
    const OffsitePlace place = placeIn(QSettings(settingsPath(session.options), QSettings::IniFormat));
    if (place.repository.isEmpty() || ::geteuid() != 0)
        return;
    const OffsiteState state = readOffsite();
    QStringList problems = {lateCopy(state, now), state.problems.join(u"; "_s), state.checkProblem};
    problems.removeAll(QString());
    if (problems.isEmpty())
        lines->append({u"Off-site"_s, u"the backup %1 since %2"_s.arg(state.copied, humanTime(state.copiedAt)), false});
    else
        lines->append({u"Off-site"_s, problems.join(u"; "_s), true});
}

// Where HTTPS is on, and the caller may know.
void addHttps(qint64 now, QList<StatusLine> *lines)
{
    const std::optional<https::State> state = ::geteuid() == 0 ? readHttps() : std::nullopt;
    if (!state)
        return;
    const QList<HttpsSite> sites = readHttpsSites(*state, now);
    QStringList faults;
    for (const Finding &finding : checkHttps(*state, sites)) {
        if (finding.level == Level::Fault)
            faults.append(finding.problem);
    }
    if (!faults.isEmpty()) {
        const QString more = faults.size() > 1 ? u" (and %1 more)"_s.arg(faults.size() - 1) : QString();
        lines->append({u"HTTPS"_s, faults.first() + more, true});
        return;
    }
    qint64 served = 0;
    qint64 firstEnd = 0;
    for (const HttpsSite &site : sites) {
        served += site.ends > 0 ? 1 : 0;
        if (site.ends > 0 && (firstEnd == 0 || site.ends < firstEnd))
            firstEnd = site.ends;
    }
    const QString ends = firstEnd > 0 ? u", the first ends %1"_s.arg(humanTime(firstEnd)) : QString();
    lines->append(
        {u"HTTPS"_s, u"%1 of %2 sites have a certificate%3"_s.arg(served).arg(sites.size()).arg(ends), false});
}

// Sites that visitors get in the place of those that were asked for, which a visit from the server itself does not
// show.
void addAddresses(QList<StatusLine> *lines)
{
    for (const Finding &finding : checkAddresses(readSites(), outerAddresses(), readHttps().has_value())) {
        if (finding.level == Level::Fault)
            lines->append({u"Sites"_s, finding.problem, true});
    }
}

void addAutomatic(const Replies &replies, QList<StatusLine> *lines)
{
    if (!replies.value("updates.status"_L1).toObject().value("automatic"_L1).toBool())
        return;
    for (const Finding &finding : checkAutomatic(readAutomatic()))
        lines->append({u"Updates"_s, u"%1: %2"_s.arg(finding.problem, finding.mend), true});
}

void addFailures(qint64 now, QList<StatusLine> *lines)
{
    for (const Failed &failed : failures()) {
        lines->append(
            {u"Failed"_s, u"%1; journalctl -u %2 says why"_s.arg(failureSentence(failed, now), failed.unit), true});
    }
}

QJsonArray linesHere(const Session &session, const Replies &replies, qint64 now)
{
    QList<StatusLine> lines;
    addAddresses(&lines);
    addAutomatic(replies, &lines);
    addOffsite(session, now, &lines);
    addHttps(now, &lines);
    addFailures(now, &lines);
    QJsonArray all;
    for (const StatusLine &line : lines)
        all.append(QJsonObject{{kTopic, line.topic}, {kText, line.text}, {kAttention, line.needsAttention}});
    return all;
}

// Behind what there is of the same topic.
void addLines(const QJsonArray &told, QList<StatusLine> *lines)
{
    for (const auto &value : told) {
        const QJsonObject line = value.toObject();
        const QString topic = line.value(kTopic).toString();
        const auto begin = std::find_if(lines->cbegin(), lines->cend(),
                                        [&topic](const StatusLine &other) { return other.topic == topic; });
        const bool isNew = begin == lines->cend();
        const auto end = isNew ? begin : std::find_if(std::next(begin), lines->cend(), [](const StatusLine &other) {
            return !other.topic.isEmpty();
        });
        lines->insert(end, {isNew ? topic : QString(), line.value(kText).toString(), line.value(kAttention).toBool()});
    }
}

// Whether the newest backup was verified, behind what the agent says of it.
void addVerdict(const QJsonObject &backup, const QString &newest, QList<StatusLine> *lines)
{
    const auto line =
        std::find_if(lines->begin(), lines->end(), [](const StatusLine &one) { return one.topic == "Backup"_L1; });
    // Another one may have come in between.
    if (line == lines->end() || newest.isEmpty() || backup.value("name"_L1).toString() != newest)
        return;
    const QStringList faults = faultSentences(backup);
    line->text += faults.isEmpty() ? u", verified"_s : u", not whole"_s;
    line->needsAttention = line->needsAttention || !faults.isEmpty();
    auto behind = std::next(line);
    for (const QString &fault : faults)
        behind = std::next(lines->insert(behind, {QString(), fault, true}));
}

} // namespace

QJsonObject readHere(const Session &session, const Replies &replies, qint64 now)
{
    if (!session.options.hosts.empty()) {
        const Distant status = runThere(session.options, {u"corvctl"_s, u"status"_s, u"--json"_s}, kThereSeconds);
        return parseObject(status.output).value("here"_L1).toObject();
    }
    QStringList suspended;
    for (const AccountSite &account : readAccountSites()) {
        if (account.suspended)
            suspended.append(account.name);
    }
    QJsonObject here = {{u"services"_s, servicesHere()},
                        {u"suspended"_s, QJsonArray::fromStringList(suspended)},
                        {u"sites"_s, sitesHere()},
                        {kLines, linesHere(session, replies, now)}};
    const QJsonObject newest = withVerdicts(session, replies.value("backup.status"_L1).toObject()).first().toObject();
    if (newest.contains("verified"_L1))
        here.insert(kBackup,
                    QJsonObject{{u"name"_s, newest.value("name"_L1)}, {u"verified"_s, newest.value("verified"_L1)}});
    return here;
}

void addHere(const QJsonObject &here, const QString &newest, QList<StatusLine> *lines)
{
    addVerdict(here.value(kBackup).toObject(), newest, lines);
    if (here.isEmpty()) {
        StatusLine &sites = lineOf(u"Sites"_s, lines);
        sites.text = u"what their visitors see is known on the server alone"_s;
        sites.isUnknown = true;
        lines->append({u"Not told"_s, kNotTold + u": known on the server alone"_s, false, true});
        return;
    }
    if (!here.contains(kLines))
        lines->append({u"Not told"_s, kNotTold + u": the corvctl there is older"_s, false, true});
    addServices(here.value("services"_L1).toArray(), &lineOf(u"Services"_s, lines));
    QStringList suspended;
    for (const auto &name : here.value("suspended"_L1).toArray())
        suspended.append(name.toString());
    if (!suspended.isEmpty())
        lineOf(u"Accounts"_s, lines).text += u", %1 suspended (%2)"_s.arg(suspended.size()).arg(someOf(suspended));
    const auto accounts = std::find_if(lines->cbegin(), lines->cend(),
                                       [](const StatusLine &line) { return line.topic == "Accounts"_L1; });
    lines->insert(std::min(accounts - lines->cbegin() + 1, lines->size()), sitesLine(here.value("sites"_L1).toArray()));
    addLines(here.value(kLines).toArray(), lines);
}

} // namespace corv::ctl
