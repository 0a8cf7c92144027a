#include "ctl/notify/Notify.h"
#include "common/Environment.h"
#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/notify/Failures.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSettings>

#include <algorithm>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// A minute for each way, and some for the connection.
constexpr int kRemoteSeconds = 180;

const auto kNobody = u"nobody is told of failures: neither mail nor command is set"_s;
const auto kHowToSet = u"man corvane.ini tells how, under [notify]"_s;

QJsonObject objectOf(const QList<Told> &told, const QStringList &problems)
{
    QJsonArray all;
    for (const Told &one : told)
        all.append(QJsonObject{{u"way"_s, one.way}, {u"to"_s, one.to}, {u"problem"_s, one.problem}});
    const bool worked = problems.isEmpty() && !told.isEmpty() &&
                        std::all_of(told.cbegin(), told.cend(), [](const Told &one) { return one.problem.isEmpty(); });
    return {{u"ok"_s, worked}, {u"told"_s, all}, {u"problems"_s, QJsonArray::fromStringList(problems)}};
}

// Shows what a test did, here or on another server. What is set and of no use is a failure, and so is nothing at all.
int show(const Session &session, const QJsonObject &outcome)
{
    const int status = outcome.value("ok"_L1).toBool() ? kDone : kRefused;
    if (session.options.json) {
        const QByteArray line = compactJson(outcome);
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return status;
    }
    const QJsonArray told = outcome.value("told"_L1).toArray();
    const QJsonArray problems = outcome.value("problems"_L1).toArray();
    QList<Row> rows;
    for (const auto &value : told) {
        const QJsonObject one = value.toObject();
        const QString problem = one.value("problem"_L1).toString();
        rows.append(
            {text(one.value("way"_L1).toString()), text(one.value("to"_L1).toString()),
             problem.isEmpty() ? text(u"handed over"_s, Colour::Good) : text(problem.simplified(), Colour::Bad)});
    }
    if (!rows.isEmpty())
        printTable(session, {u"WAY"_s, u"TO"_s, u"OUTCOME"_s}, rows);
    for (const auto &problem : problems)
        note(problem.toString());
    return told.isEmpty() && problems.isEmpty() ? fail(kRefused, kNobody, kHowToSet) : status;
}

int testThere(const Session &session)
{
    const Distant distant =
        runThere(session.options, {u"corvctl"_s, u"notify"_s, u"test"_s, u"--json"_s}, kRemoteSeconds);
    const QJsonObject outcome = QJsonDocument::fromJson(distant.output).object();
    if (outcome.contains("told"_L1))
        return show(session, outcome);
    return fail(distant.problem.isEmpty() ? kNoConnection : distant.status,
                distant.problem.isEmpty() ? u"what answers there is no corvctl of this kind"_s : distant.problem);
}

int test(Session &session, const Given &)
{
    if (session.options.printOnly) {
        print(mailText({u"root"_s}, testEvent()));
        return kDone;
    }
    if (!session.options.hosts.empty())
        return testThere(session);
    if (::geteuid() != 0)
        return fail(kNoConnection, u"only root may have the messages sent"_s, u"run it as root"_s);

    cleanEnvironment();
    const Ways ways = waysIn(QSettings(settingsPath(session.options), QSettings::IniFormat));
    return show(session, objectOf(tell(ways, testEvent()), ways.problems));
}

// What corv-notify@.service runs. The failure is kept before anybody is told: a mail can get lost.
int send(Session &session, const Given &given)
{
    const QString unit = given.text("UNIT");
    if (session.options.printOnly || !session.options.hosts.empty())
        return fail(kWrongUsage, u"this works on the server itself, and asks its agent for nothing"_s);
    if (!isUnitName(unit))
        return fail(kWrongUsage, u"'%1' is no name of a service"_s.arg(unit));
    if (::geteuid() != 0)
        return fail(kNoConnection, u"only root may have the messages sent"_s, u"run it as root"_s);

    cleanEnvironment();
    const Event event = eventOf(unit);
    QStringList problems = {
        keepFailure(unit, u"%1; corvctl doctor and journalctl -u %2 tell more"_s.arg(headline(event), unit))};
    const Ways ways = waysIn(QSettings(settingsPath(session.options), QSettings::IniFormat));
    problems += ways.problems;
    for (const Told &told : tell(ways, event)) {
        if (told.problem.isEmpty())
            printLine(escaped(u"%1 to %2: handed over"_s.arg(told.way, told.to)));
        else
            problems.append(u"%1 to %2: %3"_s.arg(told.way, told.to, told.problem));
    }
    problems.removeAll(QString());
    for (const QString &problem : problems)
        note(problem);
    if (ways.areNone())
        printLine(kNobody);
    return problems.isEmpty() ? kDone : kRefused;
}

} // namespace

Command notifyCommand()
{
    return {"notify",
            "Who is told when a backup fails",
            {},
            nullptr,
            {{"test", "Send a test message by every way that the settings name", {}, test},
             {"send",
              "Tell that a service has failed; what the unit corv-notify@ runs",
              {{"UNIT", "the service, with its ending"}},
              send}}};
}

} // namespace corv::ctl
