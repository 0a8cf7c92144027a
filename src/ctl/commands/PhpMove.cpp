#include "common/Json.h"
#include "ctl/Input.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/Turn.h"
#include "ctl/commands/Php.h"
#include "ctl/commands/RestoreText.h"
#include "ctl/php/Move.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

void showPlan(const Session &session, const MovePlan &plan)
{
    if (session.options.json || session.options.plain)
        return;
    QList<Row> rows;
    for (const MovingPool &pool : plan.pools) {
        const bool isKept = pool.wasParked == pool.becomesParked;
        const QString now = pool.becomesParked ? u"suspended"_s : u"on-line"_s;
        rows.append({text(pool.account), isKept ? text(now) : text(u"becomes "_s + now, Colour::Warning)});
    }
    for (const QString &path : plan.nobodys)
        rows.append({text(path), text(u"is removed: its user is gone"_s, Colour::Warning)});
    printTable(session, {u"POOL"_s, u"PLAN"_s}, rows);
    if (plan.cutOff)
        note(u"a move from PHP %1 to %2 was cut off; this goes on with it"_s.arg(plan.from, plan.to));
    if (!plan.canGoBack)
        note(u"PHP %1 is not installed any more: there is no way back"_s.arg(plan.from));
    if (!plan.missing.isEmpty())
        note(u"PHP %1 lacks modules that PHP %2 has: %3"_s.arg(plan.to, plan.from, plan.missing.join(", "_L1)));
    if (plan.empties && plan.canGoBack)
        note(u"PHP %1 is left without a pool; its FPM, which does not start so, is switched off"_s.arg(plan.from));
    if (plan.canGoBack)
        note(u"PHP pages fail for some milliseconds, and never for longer than PHP %1 takes for a reload"_s.arg(
            plan.to));
}

int tell(const Session &session, const MovePlan &plan, const Moved &moved)
{
    if (!moved.problem.isEmpty()) {
        const QString end = moved.wentBack ? u"all accounts are back with PHP %1"_s.arg(plan.from)
                            : moved.moved.isEmpty() && moved.milliseconds == 0
                                ? u"nothing was moved"_s
                                : u"corvctl php status shows where they are"_s;
        return refuse(session, moved.problem, end);
    }
    if (session.options.json) {
        const QByteArray line = compactJson({{u"ok"_s, true},
                                             {u"from"_s, plan.from},
                                             {u"to"_s, plan.to},
                                             {u"moved"_s, QJsonArray::fromStringList(moved.moved)},
                                             {u"dropped"_s, QJsonArray::fromStringList(moved.dropped)},
                                             {u"milliseconds"_s, moved.milliseconds}});
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return kDone;
    }
    printFacts(session, {{u"Moved"_s, number(moved.moved.size())},
                         {u"To"_s, text(u"PHP "_s + plan.to)},
                         {u"Removed"_s, number(moved.dropped.size())},
                         {u"Without PHP"_s, text(u"%1 ms"_s.arg(moved.milliseconds))}});
    if (plan.canGoBack)
        note(u"PHP %1 is not needed for accounts any more; apt-get purge php%1-fpm takes it away"_s.arg(plan.from));
    return kDone;
}

} // namespace

int phpMove(Session &session, const Given &given)
{
    if (const std::optional<int> end = refuseElsewhere(session, u"php move"_s))
        return *end;
    bareEnvironment();
    const QString from = given.text("OLD");
    const QString to = given.text("NEW");
    QString problem;
    QString hint;
    std::optional<MovePlan> plan = planMove(from, to, &problem, &hint);
    if (!plan)
        return refuse(session, problem, hint);
    if (plan->pools.isEmpty() && plan->nobodys.isEmpty()) {
        if (plan->cutOff)
            removeMove();
        return refuse(session, u"no account has a pool in PHP %1"_s.arg(from),
                      u"corvctl php status shows what there is"_s);
    }
    showPlan(session, *plan);
    const std::optional<QString> typed =
        confirmation(session, u"This moves these accounts. Type the new version, %1, to go on:"_s.arg(escaped(to)));
    if (!typed)
        return kWrongUsage;
    if (*typed != to)
        return fail(kWrongUsage, u"that is not the new version, so nothing was moved"_s);

    const InterruptGuard guard;
    const Fd turn = takeTurn(kPhpLock, u"Another move of PHP pools"_s, &problem);
    if (!turn)
        return interrupted() ? interruptedStatus() : refuse(session, problem);
    // What was shown may be some minutes old, and another may have moved them since.
    plan = planMove(from, to, &problem, &hint);
    if (!plan)
        return refuse(session, problem, hint);
    const auto say = [&](const QString &step) {
        if (!session.options.json && !session.options.plain)
            note(step);
    };
    return tell(session, *plan, movePools(*plan, say));
}

} // namespace corv::ctl
