#include "ctl/commands/Account.h"

#include "common/Account.h"
#include "common/Environment.h"
#include "ctl/Command.h"
#include "ctl/Input.h"
#include "ctl/Session.h"
#include "ctl/commands/AccountSites.h"
#include "ctl/doctor/Facts.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// What keeps the account's database from being dumped, without which it is not deleted. Nothing where this server
// cannot be asked: the agent then says what is wrong.
QList<Obstacle> findObstacles(const Session &session, const QString &name)
{
    if (session.options.printOnly || !session.options.hosts.empty() || ::geteuid() != 0 ||
        !hosting::validUsername(name))
        return {};
    cleanEnvironment();
    QString problem;
    const std::optional<Databases> databases = readDatabases(&problem);
    const Database *const database = databases ? findDatabase(*databases, name) : nullptr;
    return database ? obstaclesOf(*database) : QList<Obstacle>();
}

// Lifts them where that is wanted, and shows how in any case. Gives the status to end with where one stays.
std::optional<int> liftObstacles(const QList<Obstacle> &obstacles, bool isWanted)
{
    for (const Obstacle &obstacle : obstacles) {
        note(obstacle.what);
        note(u"  "_s + obstacle.statement);
        if (!isWanted)
            continue;
        if (const Outcome outcome = runStatements({obstacle.statement}); !outcome.succeeded)
            return fail(kRefused, QString::fromUtf8(outcome.errors).simplified());
    }
    if (!obstacles.isEmpty() && !isWanted)
        return fail(kRefused, u"the account cannot be deleted as it is, so nothing was deleted"_s,
                    u"--force has these statements run before"_s);
    return {};
}

} // namespace

int deleteAccount(Session &session, const Given &given)
{
    const QString name = given.text("ACCOUNT");
    const QStringList beside = findSitesBeside(session, name);
    warnOfSites(beside, name);
    const std::optional<QString> typed = confirmation(
        session, u"This deletes the account, its files and its database. Type %1 to go on:"_s.arg(escaped(name)));
    if (!typed)
        return kWrongUsage;
    if (*typed != name)
        return fail(kWrongUsage, u"that is not the account's name, so nothing was deleted"_s);
    if (const std::optional<int> end = liftObstacles(findObstacles(session, name), given.has("--force")))
        return *end;

    const Answer answer = ask(session, u"hosting.delete"_s, {{u"username"_s, name}, {u"confirm"_s, *typed}});
    if (answer.ok())
        tellOfSitesLeft(session, beside);
    const QString archive = answer.reply.value("archive"_L1).toString();
    if (const std::optional<int> end = settled(session, answer)) {
        if (!archive.isEmpty() && !session.options.json)
            note(u"the archives are at %1"_s.arg(archive));
        return *end;
    }
    printFacts(session, {{u"Deleted"_s, text(name)}, {u"Archives"_s, text(archive)}});
    return kDone;
}

} // namespace corv::ctl
