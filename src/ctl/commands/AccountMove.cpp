#include "common/Account.h"
#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/commands/Account.h"
#include "ctl/commands/RestoreText.h"
#include "ctl/move/Plan.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Terminal.h"
#include "ctl/screen/Wrap.h"

#include <QJsonArray>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

using moving::Check;

constexpr int kLevelColumns = 12;
constexpr int kAboutColumns = 12;

QString levelText(Check::Level level)
{
    switch (level) {
    case Check::Level::Told:
        return u"note"_s;
    case Check::Level::InTheWay:
        return u"in the way"_s;
    default:
        return u"well"_s;
    }
}

Colour colourOf(Check::Level level)
{
    switch (level) {
    case Check::Level::Told:
        return Colour::Warning;
    case Check::Level::InTheWay:
        return Colour::Bad;
    default:
        return Colour::Good;
    }
}

// What these are about that are in the way, each once.
QStringList inTheWay(const QList<Check> &checks)
{
    QStringList abouts;
    for (const Check &check : checks) {
        if (check.level == Check::Level::InTheWay)
            abouts.append(check.about);
    }
    abouts.removeDuplicates();
    return abouts;
}

// In full: what is shortened to fit a table is what has to be read.
void showChecks(const Terminal &terminal, const QList<Check> &checks)
{
    for (const Check &check : checks) {
        QString begin = coloured(terminal, colourOf(check.level), levelText(check.level).leftJustified(kLevelColumns)) +
                        check.about.leftJustified(kAboutColumns);
        for (const QString &line : wrapped(escaped(check.text), terminal.columns - kLevelColumns - kAboutColumns)) {
            printLine(begin + line);
            begin = QString(kLevelColumns + kAboutColumns, u' ');
        }
    }
}

void showJson(const Session &session, const QString &account, const QString &host, const moving::There &there,
              const QList<Check> &checks)
{
    QJsonArray all;
    for (const Check &check : checks)
        all.append(
            QJsonObject{{u"about"_s, check.about}, {u"level"_s, levelText(check.level)}, {u"text"_s, check.text}});
    const QByteArray line = compactJson({{u"ok"_s, inTheWay(checks).isEmpty()},
                                         {u"account"_s, account},
                                         {u"host"_s, host},
                                         {u"domain"_s, there.state.domain},
                                         {u"homeBytes"_s, there.homeBytes},
                                         {u"homeEntries"_s, there.homeEntries},
                                         {u"databaseBytes"_s, there.databaseBytes},
                                         {u"checks"_s, all}});
    print((session.terminal.out ? escapedJson(line) : line) + '\n');
}

int tell(const Session &session, const QString &account, const QString &host, const moving::There &there)
{
    const QList<Check> checks = checksOf(there, lookHere(there));
    if (session.options.json) {
        showJson(session, account, host, there, checks);
    } else if (session.options.plain) {
        for (const Check &check : checks)
            printLine(u"%1\t%2\t%3"_s.arg(check.about, levelText(check.level), escaped(check.text)));
    } else {
        showChecks(session.terminal, checks);
    }
    const QStringList stops = inTheWay(checks);
    if (stops.isEmpty())
        return kDone;
    return fail(kRefused, u"%1 cannot be moved here yet: %2"_s.arg(account, stops.join(", "_L1)));
}

} // namespace

int moveOfAccount(Session &session, const Given &given)
{
    const QString account = given.text("ACCOUNT");
    const QString host = given.text("HOST");
    if (const std::optional<int> end = refuseElsewhere(session, u"account move"_s))
        return *end;
    if (!given.has("--dry-run"))
        return fail(kWrongUsage, u"only the plan of a move can be asked for yet: --dry-run"_s,
                    u"corvctl account export and corvctl account restore move an account meanwhile"_s);
    // It is put into the words of a shell over there.
    if (!hosting::validUsername(account))
        return fail(kWrongUsage, u"%1 is no name of an account"_s.arg(account));
    if (const QString problem = hostProblem(host); !problem.isEmpty())
        return fail(kWrongUsage, problem);
    // ssh may need what stands in the environment, such as the agent of the administrator's keys.
    QString problem;
    int status = kDone;
    const std::optional<moving::There> there = moving::lookThere(session.options, host, account, &problem, &status);
    if (!there)
        return status == kRefused ? refuse(session, problem) : fail(status, problem);
    bareEnvironment();
    return tell(session, account, host, *there);
}

} // namespace corv::ctl
