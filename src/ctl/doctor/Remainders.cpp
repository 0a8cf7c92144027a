#include "ctl/doctor/Remainders.h"

#include "common/Archives.h"
#include "common/Site.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

QStringList asPostgres(const QStringList &command)
{
    return QStringList{u"runuser"_s, u"-u"_s, u"postgres"_s, u"--"_s} + command;
}

// Its owner may have made a template of it, which nobody can drop, or have closed it, so that nobody can dump it.
QList<Step> liftingSteps(const Database &database)
{
    QList<Step> steps;
    for (const Obstacle &obstacle : obstaclesOf(database))
        steps.append({asPostgres({u"psql"_s, u"-qc"_s, obstacle.statement}), {}});
    return steps;
}

Remainder databaseLeft(const QString &name, const Database &database, const Role *role, const QString &stamp)
{
    if (database.isInvalid)
        return {u"the database %1 is what a drop left that was cut off"_s.arg(name), droppingSteps(database)};
    if (database.owner != name || database.isOpen || !role || !role->isPlain) {
        return {u"PostgreSQL has a database %1 of %2, which is not what an account leaves"_s.arg(name, database.owner),
                {}};
    }
    return {u"PostgreSQL has a database %1, but there is no such account"_s.arg(name),
            droppingSteps(database, u"%1/%2-%3-db.dump"_s.arg(kArchives, name, stamp))};
}

Remainder roleLeft(const QString &name, const Role &role)
{
    if (!role.isPlain)
        return {u"PostgreSQL has a role %1 that may do more than an account's"_s.arg(name), {}};
    return {u"PostgreSQL has a role %1, but there is no such account"_s.arg(name),
            {{asPostgres({u"dropuser"_s, name}), {}}}};
}

} // namespace

QList<Step> droppingSteps(const Database &database, const QString &dump)
{
    const Step drop = {asPostgres({u"dropdb"_s, database.name}), {}};
    // What it held is gone, and whatever else was set of it keeps nobody from dropping the rest.
    if (database.isInvalid)
        return {drop};
    QList<Step> steps = liftingSteps(database);
    if (!dump.isEmpty())
        steps.append({asPostgres({u"pg_dump"_s, u"-Fc"_s, database.name}), dump});
    return steps + QList<Step>{drop};
}

bool isHalfThere(const AccountParts &account, const std::optional<Databases> &databases)
{
    return !account.site && account.pools.isEmpty() && account.parkedPools.isEmpty() && databases &&
           !findDatabase(*databases, account.name) && !findDatabase(*databases, account.name + u"__old"_s);
}

QString finishDeletion(const QString &account, bool isForced)
{
    return u"corvctl account delete "_s + account + (isForced ? u" --force"_s : QString());
}

QList<Remainder> remaindersOf(const NameFacts &facts, const QString &stamp)
{
    const QString &name = facts.name;
    if (facts.account) {
        const Database *const database = facts.databases ? findDatabase(*facts.databases, name) : nullptr;
        const bool isCutOff = !facts.account->site && database && database->isInvalid;
        if (!isCutOff && !isHalfThere(*facts.account, facts.databases))
            return {};
        return {{u"the user %1 is what is left of an account: take it away by %2"_s.arg(
                     name, finishDeletion(name, !isCutOff || facts.account->archives.isEmpty())),
                 {}}};
    }
    if (facts.hasUser)
        return {};

    QList<Remainder> found;
    if (facts.hasSite) {
        const QString file = hosting::siteName(name) + u".conf"_s;
        found.append({u"an Apache site is left of %1, which is no account"_s.arg(name),
                      {{{u"rm"_s, u"-f"_s, u"/etc/apache2/sites-enabled/"_s + file, hosting::sitePath(name)}, {}}}});
    }
    if (facts.homeHoldsLinks) {
        found.append({u"the folder /home/%1 is there, and holds links"_s.arg(name),
                      {{{u"mv"_s, u"-T"_s, u"/home/"_s + name, u"/home/.former-%1-%2"_s.arg(name, stamp)}, {}}}});
    }
    if (facts.hasEmptyGroup) {
        found.append({u"there is a group %1 without a user or a member"_s.arg(name), {{{u"groupdel"_s, name}, {}}}});
    }
    if (facts.databases) {
        const Role *const role = findRole(*facts.databases, name);
        if (const Database *const database = findDatabase(*facts.databases, name))
            found.append(databaseLeft(name, *database, role, stamp));
        if (role)
            found.append(roleLeft(name, *role));
    }
    // A creation writes its own in the place of one; it goes with the rest.
    if (!facts.pools.isEmpty() && !found.isEmpty()) {
        found.append({u"a PHP pool is left of %1, which is no account"_s.arg(name),
                      {{QStringList{u"rm"_s, u"-f"_s} + facts.pools, {}}}});
    }
    return found;
}

QString shellLine(const QList<Step> &steps)
{
    QStringList commands;
    for (const Step &step : steps) {
        QStringList words;
        for (const QString &word : step.command)
            words.append(shellWord(word));
        if (!step.output.isEmpty())
            words.append(u'>' + shellWord(step.output));
        commands.append(words.join(u' '));
    }
    return commands.join(u" && "_s);
}

} // namespace corv::ctl
