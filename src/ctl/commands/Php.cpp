#include "ctl/commands/Php.h"

#include "common/Json.h"
#include "common/Pool.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/Turn.h"
#include "ctl/commands/RestoreText.h"
#include "ctl/doctor/PhpPools.h"
#include "ctl/doctor/Visitors.h"
#include "ctl/php/Follow.h"
#include "ctl/php/Fpm.h"
#include "ctl/php/MoveJournal.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// What there is to be done, the most pressing first: a sentence and its command. Both empty for nothing.
struct Next
{
    QString sentence;
    QString command;
};

Next nextOf(const QList<PhpPools> &versions, const QString &inForce, const std::optional<MoveJournal> &cutOff)
{
    if (cutOff)
        return {u"a move from PHP %1 to %2 was cut off"_s.arg(cutOff->from, cutOff->to),
                u"corvctl php move %1 %2"_s.arg(cutOff->from, cutOff->to)};
    const bool hasNobodys =
        std::any_of(versions.cbegin(), versions.cend(), [](const PhpPools &pools) { return !pools.nobodys.isEmpty(); });
    if (hasNobodys)
        return {u"pools of users who are gone keep an FPM from starting"_s, u"corvctl php follow"_s};
    for (const PhpPools &pools : versions) {
        if (pools.version == inForce || (pools.live.isEmpty() && pools.parked.isEmpty()))
            continue;
        const QString move = u"corvctl php move %1 %2"_s.arg(pools.version, inForce);
        if (!pools.isInstalled)
            return {u"PHP %1 is gone, so the sites of %2 have no PHP"_s.arg(pools.version,
                                                                            someOf(pools.live + pools.parked)),
                    move};
        return {u"nothing is moved unasked: %1 stay with PHP %2 until they are"_s.arg(someOf(pools.live + pools.parked),
                                                                                      pools.version),
                move};
    }
    return {};
}

QString stateText(const PhpPools &pools, bool isRunning)
{
    if (!pools.isInstalled)
        return u"gone"_s;
    return isRunning ? u"runs"_s : u"does not run"_s;
}

int status(Session &session, const Given & /*given*/)
{
    if (const std::optional<int> end = refuseElsewhere(session, u"php status"_s))
        return *end;
    bareEnvironment();
    QString problem;
    const QList<PhpPools> versions = readPhpPools(&problem);
    if (!problem.isEmpty())
        return refuse(session, problem);
    const QString inForce = hosting::phpVersion();
    const Next next = nextOf(versions, inForce, readMove());

    QJsonArray array;
    QList<Row> rows;
    for (const PhpPools &pools : versions) {
        const bool isRunning = pools.isInstalled && isFpmRunning(pools.version);
        const bool isInForce = pools.version == inForce;
        array.append(QJsonObject{{u"version"_s, pools.version},
                                 {u"installed"_s, pools.isInstalled},
                                 {u"running"_s, isRunning},
                                 {u"inForce"_s, isInForce},
                                 {u"live"_s, QJsonArray::fromStringList(pools.live)},
                                 {u"parked"_s, QJsonArray::fromStringList(pools.parked)},
                                 {u"nobodys"_s, QJsonArray::fromStringList(pools.nobodys)}});
        rows.append({text(pools.version), text(stateText(pools, isRunning), isRunning ? Colour::Good : Colour::Bad),
                     yesNo(isInForce), number(pools.live.size()), number(pools.parked.size()),
                     number(pools.nobodys.size())});
    }
    if (session.options.json) {
        const QByteArray line = compactJson(
            {{u"ok"_s, true}, {u"versions"_s, array}, {u"problem"_s, next.sentence}, {u"next"_s, next.command}});
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return kDone;
    }
    printTable(session, {u"PHP"_s, u"FPM"_s, u"IN FORCE"_s, u"ON-LINE"_s, u"SUSPENDED"_s, u"NOBODY'S"_s}, rows);
    if (!next.sentence.isEmpty()) {
        note(next.sentence);
        note(u"  "_s + next.command);
    }
    return kDone;
}

int follow(Session &session, const Given & /*given*/)
{
    if (const std::optional<int> end = refuseElsewhere(session, u"php follow"_s))
        return *end;
    bareEnvironment();
    const InterruptGuard guard;
    QString problem;
    const Fd turn = takeTurn(kPhpLock, u"A move of PHP pools"_s, &problem);
    if (!turn)
        return interrupted() ? interruptedStatus() : refuse(session, problem);
    QStringList done;
    problem = followAccounts([&](const QString &step) {
        done.append(step);
        if (!session.options.json)
            note(step);
    });
    if (!problem.isEmpty())
        return refuse(session, problem, u"corvctl php status shows what there is"_s);
    if (session.options.json)
        print(compactJson({{u"ok"_s, true}, {u"done"_s, QJsonArray::fromStringList(done)}}) + '\n');
    return kDone;
}

} // namespace

Command phpCommand()
{
    return {"php",
            "The PHP versions of this server, and which of them accounts run",
            {},
            nullptr,
            {{"status", "Show the PHP versions, their pools, and what is to be done", {}, status},
             {"move",
              "Move all accounts from one PHP version to another; asks for the new one",
              {{"OLD", "the version that they have, such as 8.2", Kind::Required, Names::PhpVersion},
               {"NEW", "the version that they get", Kind::Required, Names::PhpVersion}},
              phpMove},
             {"follow",
              "Put right what commands for accounts left under other PHP versions; run by corv-php.service",
              {},
              follow}}};
}

} // namespace corv::ctl
