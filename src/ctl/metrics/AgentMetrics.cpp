#include "common/InHand.h"
#include "common/Json.h"
#include "ctl/Client.h"
#include "ctl/Described.h"
#include "ctl/metrics/Collectors.h"
#include "ctl/metrics/JournalReader.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kPingSeconds = 5;
constexpr int kAskSeconds = 60;
constexpr qsizetype kLongestVersion = 64;

Answer askAgent(const Circumstances &here, const QString &command, int seconds)
{
    Client client;
    client.setSocket(here.socket);
    return client.request(compactJson({{u"cmd"_s, command}}), seconds, [](const Waiting &) {});
}

// Why there is nothing to be told of a request; empty where it was done.
QString problemOf(const Answer &answer)
{
    if (answer.ok())
        return {};
    return answer.fate == Answer::Fate::Replied ? answer.reply.value("error"_L1).toString() : answer.problem;
}

double truth(const QJsonValue &value)
{
    return value.toBool() ? 1 : 0;
}

} // namespace

Collected collectAgent(const Circumstances &here)
{
    constexpr double kMilliseconds = 1000;
    Collected all;
    const Answer answer = askAgent(here, u"ping"_s, kPingSeconds);
    // It answers nobody while it works on a request, which may take its hour.
    const std::optional<InHand> request = readInHand(kInHandPath);
    const bool isAtWork = answer.fate == Answer::Fate::TimedOut && request;
    all.samples.append({u"corvane_agent_up"_s, {}, answer.ok() || isAtWork ? 1.0 : 0.0});
    if (answer.ok()) {
        const QString version = answer.reply.value("version"_L1).toString().left(kLongestVersion);
        all.samples.append({u"corvane_agent_info"_s, {version}, 1});
    }
    if (request) {
        const double began =
            static_cast<double>(here.now) - static_cast<double>(bootMilliseconds() - request->began) / kMilliseconds;
        all.samples.append({u"corvane_agent_request_start_timestamp_seconds"_s, {request->command}, began});
    }
    return all;
}

Collected collectRequests(const Circumstances &here)
{
    Collected all;
    std::optional<JournalPlace> place = placeIn(here.kept);
    if (!place && !here.kept.isEmpty())
        all.problem = u"what was kept of the agent's requests is damaged; they are counted anew"_s;
    if (!place)
        place = JournalPlace{here.now, {}, {}};
    if (const QString problem = countOn(&*place, here.now); !problem.isEmpty())
        all.problem = problem;

    const AgentCounts &counts = place->counts;
    for (const Described &command : described()) {
        const QString name = QString::fromLatin1(command.name);
        all.samples.append(
            {u"corvane_agent_requests_total"_s, {name, u"ok"_s}, static_cast<double>(counts.ok.value(name))});
        all.samples.append(
            {u"corvane_agent_requests_total"_s, {name, u"failed"_s}, static_cast<double>(counts.failed.value(name))});
    }
    all.samples.append({u"corvane_agent_unknown_commands_total"_s, {}, static_cast<double>(counts.unknown)});
    all.samples.append({u"corvane_agent_refused_connections_total"_s, {}, static_cast<double>(counts.refused)});
    all.samples.append(
        {u"corvane_agent_requests_counted_since_timestamp_seconds"_s, {}, static_cast<double>(place->since)});
    all.keep = objectOf(*place);
    return all;
}

Collected collectSecurity(const Circumstances &here)
{
    Collected all;
    const Answer answer = askAgent(here, u"security.status"_s, kAskSeconds);
    all.problem = problemOf(answer);
    if (!all.problem.isEmpty())
        return all;
    const QJsonObject firewall = answer.reply.value("firewall"_L1).toObject();
    const QJsonObject bans = answer.reply.value("fail2ban"_L1).toObject();
    if (firewall.value("ok"_L1).toBool())
        all.samples.append({u"corvane_firewall_active"_s, {}, truth(firewall.value("active"_L1))});
    else
        all.problem = firewall.value("error"_L1).toString(u"no firewall is told of"_s);
    if (!bans.value("ok"_L1).toBool()) {
        all.problem = bans.value("error"_L1).toString(u"no bans are told of"_s);
        return all;
    }
    all.samples.append({u"corvane_fail2ban_running"_s, {}, truth(bans.value("running"_L1))});
    for (const auto &value : bans.value("jails"_L1).toArray()) {
        const QJsonObject jail = value.toObject();
        const QStringList name = {jail.value("name"_L1).toString()};
        all.samples.append(
            {u"corvane_banned_addresses"_s, name, static_cast<double>(jail.value("banned"_L1).toArray().size())});
        all.samples.append({u"corvane_bans_total"_s, name, jail.value("totalBanned"_L1).toDouble()});
    }
    return all;
}

Collected collectUpdates(const Circumstances &here)
{
    const Answer answer = askAgent(here, u"updates.status"_s, kAskSeconds);
    if (const QString problem = problemOf(answer); !problem.isEmpty())
        return {{}, {}, problem};
    const QJsonObject &reply = answer.reply;
    const double security = reply.value("security"_L1).toDouble();
    return {{{u"corvane_updates_pending"_s, {u"security"_s}, security},
             {u"corvane_updates_pending"_s, {u"other"_s}, reply.value("updates"_L1).toDouble() - security},
             {u"corvane_updates_automatic"_s, {}, truth(reply.value("automatic"_L1))},
             {u"corvane_updates_last_check_timestamp_seconds"_s, {}, reply.value("lastCheck"_L1).toDouble()},
             {u"corvane_restart_required"_s, {}, truth(reply.value("rebootRequired"_L1))}},
            {},
            {}};
}

} // namespace corv::ctl
