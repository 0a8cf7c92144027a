#include "common/Account.h"
#include "ctl/doctor/Accounts.h"
#include "ctl/doctor/Remainders.h"

#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr auto kRestoring = "__restore"_L1;
constexpr auto kReplaced = "__old"_L1;

QList<Finding> checkScratchDatabases(const Databases &databases)
{
    QList<Finding> findings;
    for (const Database &database : databases.databases) {
        const bool restoring = database.name.endsWith(kRestoring);
        if (!restoring && !database.name.endsWith(kReplaced))
            continue;
        const QString account = database.name.chopped(restoring ? kRestoring.size() : kReplaced.size());
        // Where the live database is missing, that is told with the account.
        if (!hosting::validUsername(account) || (!restoring && !findDatabase(databases, account)))
            continue;
        findings.append({Level::Fault, u"a restore that was cut off left the database %1"_s.arg(database.name),
                         shellLine(droppingSteps(database))});
    }
    return findings;
}

// A role and a database as creation makes them, whose user is gone. A role alone that has anything to do with other
// databases may be anybody's; one that has not is what a creation or a deletion left that PostgreSQL ended.
QList<Finding> checkOrphans(const Databases &databases, const QStringList &users)
{
    QList<Finding> findings;
    for (const Role &role : databases.roles) {
        const QString &name = role.name;
        if (!hosting::validUsername(name) || users.contains(name) || !role.isPlain)
            continue;
        const Database *const database = findDatabase(databases, name);
        if (!database) {
            findings.append({role.isBare ? Level::Fault : Level::Note,
                             u"PostgreSQL has a role %1, but the server has no such user"_s.arg(name),
                             u"runuser -u postgres -- dropuser %1"_s.arg(name)});
        } else if (database->isInvalid) {
            findings.append(
                {Level::Fault,
                 u"the database %1, which belongs to no account, is what a drop left that was cut off"_s.arg(name),
                 u"runuser -u postgres -- dropdb %1 && runuser -u postgres -- dropuser %1"_s.arg(name)});
        } else if (database->owner == name && !database->isOpen) {
            findings.append({Level::Fault, u"the role and database %1 belong to no account"_s.arg(name),
                             shellLine(droppingSteps(*database, u"/root/%1-db.dump"_s.arg(name))) +
                                 u" && runuser -u postgres -- dropuser "_s + name});
        }
    }
    return findings;
}

} // namespace

QString accountOfFile(const QString &fileName)
{
    static const QRegularExpression pattern(
        QRegularExpression::anchoredPattern(u"corv-([a-z0-9]+)\\.conf(\\.suspended)?"_s));
    const QString name = pattern.match(fileName).captured(1);
    return hosting::validUsername(name) ? name : QString();
}

QList<Finding> checkLeftovers(const NamedParts &parts, const std::optional<Databases> &databases,
                              const QStringList &users, const QStringList &accounts)
{
    QList<Finding> findings;
    for (const QString &pool : parts.pools) {
        const QString name = accountOfFile(pool.section(u'/', -1));
        if (name.isEmpty() || accounts.contains(name))
            continue;
        const QString php = pool.section(u'/', 3, 3);
        findings.append({Level::Fault, u"a PHP pool is left of %1, which is no account"_s.arg(name),
                         u"rm %1; systemctl try-reload-or-restart php%2-fpm"_s.arg(shellWord(pool), php)});
    }
    for (const QString &site : parts.sites) {
        const QString name = accountOfFile(site);
        if (name.isEmpty() || accounts.contains(name))
            continue;
        findings.append({Level::Fault, u"an Apache site is left of %1, which is no account"_s.arg(name),
                         u"rm -f /etc/apache2/sites-*/%1 && systemctl reload apache2"_s.arg(site)});
    }
    for (const QString &home : parts.ownerlessHomes) {
        // Each in an archive of its own, or that of the second would take the place of the first.
        const QString archive = u"/root/left-over-%1.tar.gz"_s.arg(home.section(u'/', -1));
        findings.append({Level::Fault, u"the folder %1 belongs to no user"_s.arg(home),
                         u"tar -czf %2 %1 && rm -rf %1"_s.arg(shellWord(home), shellWord(archive))});
    }
    if (databases)
        findings += checkScratchDatabases(*databases) + checkOrphans(*databases, users);
    return findings;
}

} // namespace corv::ctl
