#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/doctor/Updates.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Follow.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>
#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kRemoteSeconds = 60;
const auto kPackage = u"unattended-upgrades"_s;

// What keeps automatic updates from being installed on this server; empty where nothing does, and where another server
// is asked for.
QString automaticProblem(const Session &session)
{
    if (!session.options.hosts.empty())
        return {};
    const QList<Finding> findings = checkAutomatic(readAutomatic());
    return findings.isEmpty() ? QString() : u"%1 (%2)"_s.arg(findings.first().problem, findings.first().mend);
}

Cell automaticCell(const Session &session, bool isOn)
{
    const QString problem = isOn ? automaticProblem(session) : QString();
    return problem.isEmpty() ? yesNo(isOn, Colour::Good, Colour::Warning) : text(problem, Colour::Bad);
}

// Whether it is certain that nothing there would install the updates. A key that is good for the agent's socket alone
// tells nothing of packages.
bool lacksPackage(const Session &session)
{
    if (session.options.hosts.empty())
        return !readAutomatic().hasPackage;
    const Distant distant = runThere(session.options, {u"dpkg-query"_s, u"-s"_s, kPackage}, kRemoteSeconds);
    return distant.problem.contains("is not installed"_L1) ||
           (distant.output.contains("\nStatus: ") && !distant.output.contains("\nStatus: install ok installed\n"));
}

int status(Session &session, const Given &)
{
    const Answer answer = ask(session, u"updates.status"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    const QJsonObject &reply = answer.reply;
    QStringList reasons;
    for (const QJsonValue package : reply.value("rebootPackages"_L1).toArray())
        reasons.append(package.toString());
    const bool restart = reply.value("rebootRequired"_L1).toBool();

    QList<Fact> facts = {{u"Updates"_s, number(reply.value("updates"_L1).toInteger())},
                         {u"Security updates"_s, number(reply.value("security"_L1).toInteger())},
                         {u"Being installed"_s, yesNo(reply.value("running"_L1).toBool(), Colour::Warning)},
                         {u"Automatic"_s, automaticCell(session, reply.value("automatic"_L1).toBool())},
                         {u"Last check"_s, timeIn(reply, "lastCheck"_L1)},
                         {u"Restart needed"_s, yesNo(restart, Colour::Warning)}};
    if (!reasons.isEmpty())
        facts.append({u"Restart for"_s, text(reasons.join(u", "_s))});
    printFacts(session, facts);
    return kDone;
}

int list(Session &session, const Given &)
{
    const Answer answer = ask(session, u"updates.status"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    QList<Row> rows;
    for (const QJsonValue value : answer.reply.value("packages"_L1).toArray()) {
        const QJsonObject package = value.toObject();
        rows.append({text(package.value("name"_L1).toString()), text(package.value("from"_L1).toString()),
                     text(package.value("to"_L1).toString()),
                     yesNo(package.value("security"_L1).toBool(), Colour::Warning)});
    }
    printTable(session, {u"PACKAGE"_s, u"INSTALLED"_s, u"NEW"_s, u"SECURITY"_s}, rows);
    return kDone;
}

int log(Session &session, const Given &)
{
    const Answer answer = ask(session, u"updates.status"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    print(escapedLines(answer.reply.value("log"_L1).toString()).toUtf8());
    return kDone;
}

int refresh(Session &session, const Given &)
{
    return settledWith(session, ask(session, u"updates.refresh"_s), u"the package lists are up to date"_s);
}

// What an installation's closing line says, where one of the lines is one.
std::optional<int> outcomeIn(const QStringList &lines)
{
    static const QRegularExpression closing(
        QRegularExpression::anchoredPattern(u"== finished \\(exit (\\d{1,3})\\)"_s));
    for (const QString &line : lines) {
        if (const QRegularExpressionMatch match = closing.match(line); match.hasMatch())
            return match.captured(1).toInt();
    }
    return {};
}

int followInstallation(Session &session, const QString &logBefore)
{
    LogFollower follower(session, logBefore);
    std::optional<int> outcome;
    const Answer last = askUntil(session, u"updates.status"_s, [&](const QJsonObject &reply) {
        if (const std::optional<int> found = outcomeIn(follower.take(reply.value("log"_L1).toString())))
            outcome = found;
        return !reply.value("running"_L1).toBool();
    });
    if (const std::optional<int> end = settled(session, last); end && *end != kDone)
        return *end;
    if (!outcome)
        return fail(kRefused, u"the installation ended without telling how"_s,
                    u"/var/log/corvane/upgrade.log holds what it printed"_s);
    if (*outcome != 0)
        return fail(kRefused, u"the installation failed with exit code %1"_s.arg(*outcome),
                    u"/var/log/corvane/upgrade.log holds what it printed"_s);
    if (!session.options.json && !session.options.plain)
        printLine(u"the updates are installed"_s);
    return kDone;
}

int install(Session &session, const Given &given)
{
    const bool wait = given.has("--wait") && !session.options.printOnly;
    QString logBefore;
    if (wait) {
        const Answer before = ask(session, u"updates.status"_s);
        if (!before.ok())
            return *settled(session, before);
        logBefore = before.reply.value("log"_L1).toString();
    }

    const Answer answer = ask(session, u"updates.install"_s, {{u"mode"_s, given.text("security|all")}});
    if (!wait)
        return settledWith(session, answer, u"the installation has begun; corvctl update log shows how far it is"_s);
    if (const std::optional<int> end = settled(session, answer); end && *end != kDone)
        return *end;
    return followInstallation(session, logBefore);
}

int automatic(Session &session, const Given &given)
{
    const bool on = given.text("on|off") == "on"_L1;
    if (on && !session.options.printOnly && lacksPackage(session)) {
        return fail(kRefused, u"nothing would install the updates: the package %1 is missing"_s.arg(kPackage),
                    u"apt-get install -y %1 on the server, then this again"_s.arg(kPackage));
    }
    const int end = settledWith(session, ask(session, u"updates.automatic"_s, {{u"on"_s, on}}),
                                u"automatic security updates are %1"_s.arg(on ? u"on"_s : u"off"_s));
    if (const QString problem =
            on && end == kDone && !session.options.printOnly ? automaticProblem(session) : QString();
        !problem.isEmpty())
        note(problem);
    return end;
}

} // namespace

Command updateCommand()
{
    return {"update",
            "Updates of the operating system",
            {},
            nullptr,
            {{"status", "Show how many updates there are and whether some are being installed", {}, status},
             {"list", "List the packages that can be updated", {}, list},
             {"log", "Show the end of the installations' log", {}, log},
             {"refresh", "Read the package lists anew", {}, refresh},
             {"install",
              "Start installing updates",
              {{"security|all", "which ones", Kind::Required, Names::Nothing, {"security", "all"}},
               {"--wait", "follow the log until the end; the exit status tells the outcome", Kind::Flag}},
              install},
             {"automatic",
              "Switch automatic security updates on or off",
              {{"on|off", "whether they shall be on", Kind::Required, Names::Nothing, {"on", "off"}}},
              automatic}}};
}

} // namespace corv::ctl
