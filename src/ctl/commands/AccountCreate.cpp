#include "common/Account.h"
#include "common/Environment.h"
#include "common/Run.h"
#include "ctl/Command.h"
#include "ctl/RestoreJournal.h"
#include "ctl/Session.h"
#include "ctl/commands/Account.h"
#include "ctl/commands/AccountSites.h"
#include "ctl/doctor/Facts.h"
#include "ctl/doctor/Remainders.h"
#include "ctl/move/Journal.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QDateTime>

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

bool isHere(const Session &session)
{
    return !session.options.printOnly && session.options.hosts.empty() && ::geteuid() == 0;
}

// What stands in the way of an account of that name. Nothing where this server cannot be asked: the agent then says
// what is wrong.
QList<Remainder> findRemainders(const Session &session, const QString &name)
{
    if (!isHere(session) || !hosting::validUsername(name))
        return {};
    cleanEnvironment();
    return remaindersOf(readNameFacts(name), QDateTime::currentDateTime().toString(u"yyyyMMdd-HHmmss"_s));
}

void show(const QList<Remainder> &remainders)
{
    for (const Remainder &remainder : remainders) {
        note(remainder.what);
        if (!remainder.steps.isEmpty())
            note(u"  "_s + shellLine(remainder.steps));
    }
}

// Takes what stands in the way out of it, where that is wanted. Gives the status to end with where anything stays.
std::optional<int> clearTheWay(const Session &session, const QList<Remainder> &remainders, bool isWanted)
{
    if (remainders.isEmpty())
        return {};
    show(remainders);
    const bool canGo = std::none_of(remainders.cbegin(), remainders.cend(),
                                    [](const Remainder &remainder) { return remainder.steps.isEmpty(); });
    if (!canGo)
        return refuse(session, u"the name is not free, so nothing was made"_s,
                      u"mend that first, or take another name"_s);
    if (!isWanted)
        return refuse(session, u"the name is not free, so nothing was made"_s,
                      u"--clear has these commands run before"_s);

    ::umask(S_IRWXG | S_IRWXO); // a dump is root's alone
    for (const Remainder &remainder : remainders) {
        for (const Step &step : remainder.steps) {
            const QString problem =
                hosting::run(step.command.constFirst(), step.command.mid(1), {}, nullptr, step.output);
            if (!problem.isEmpty())
                return refuse(session, oneSentence(problem));
        }
    }
    return {};
}

} // namespace

int createAccount(Session &session, const Given &given)
{
    const QString name = given.text("ACCOUNT");
    QJsonObject args = accountIn(given);
    args.insert(u"domain"_s, given.text("DOMAIN"));
    if (given.has("--key-file") && !addSource(session, given.text("--key-file"), u"sshKey"_s, &args))
        return kWrongUsage;
    if (const std::optional<int> end = refuseLong(session, given.text("DOMAIN")))
        return *end;
    if (const std::optional<int> end =
            refuseTaken(session, given.text("DOMAIN"), given.text("ACCOUNT"), given.has("--force")))
        return *end;
    if (const std::optional<int> end = clearTheWay(session, findRemainders(session, name), given.has("--clear")))
        return *end;

    const Answer answer = ask(session, u"hosting.create"_s, args);
    // An earlier restore to that name would take this account for the one that it has made, and one of that name may
    // have left for another server.
    if (answer.ok() && isHere(session)) {
        removeJournal(name);
        (void)moving::forgetLeft(name);
    }
    if (const std::optional<int> end = settled(session, answer)) {
        // What the agent could not take back, such as the role where PostgreSQL went away.
        if (answer.fate == Answer::Fate::Replied && !answer.ok()) {
            const QList<Remainder> left = findRemainders(session, name);
            show(left);
            if (!left.isEmpty())
                note(u"that is left of it; with --clear the same command takes it away and tries again"_s);
        }
        return *end;
    }

    const QString php = answer.reply.value("phpVersion"_L1).toString();
    // The password is told here and never again.
    printFacts(session, {{u"Account"_s, text(name)},
                         {u"Domain"_s, text(answer.reply.value("domain"_L1).toString())},
                         {u"PHP"_s, text(php.isEmpty() ? u"none"_s : php)},
                         {u"Access log"_s, whole(answer.reply.value("accessLog"_L1).toString())},
                         {u"Database"_s, text(name)},
                         {u"Database password"_s, whole(answer.reply.value("dbPassword"_L1).toString())}});
    return kDone;
}

} // namespace corv::ctl
