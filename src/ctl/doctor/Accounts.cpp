#include "ctl/doctor/Accounts.h"

#include "common/Account.h"
#include "common/Pool.h"
#include "common/Site.h"
#include "ctl/doctor/Remainders.h"

#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr auto kReplaced = "__old"_L1;

QString sql(const QString &statement)
{
    return u"runuser -u postgres -- psql -c "_s + shellWord(statement);
}

bool isSuspendedSite(const AccountParts &account)
{
    return account.site == hosting::vhost(account.name, account.domain, false, true).toUtf8();
}

// What a site file says of its domain: the mend of a user whose comment has lost it.
QString domainOfSite(const AccountParts &account)
{
    static const QRegularExpression pattern(u"^\\s*ServerName\\s+(\\S+)\\s*$"_s, QRegularExpression::MultilineOption);
    const QString name = pattern.match(QString::fromUtf8(account.site.value_or(QByteArray()))).captured(1);
    return hosting::isStoredDomain(name) ? name : QString();
}

// Everything else of it can only be guessed, so that the only way is on: to the end of a deletion.
Finding halfThere(const QString &name, bool hasRole)
{
    return {Level::Fault,
            u"the account %1 is only half there: its user has no site, no pool%2 and no database"_s.arg(
                name, hasRole ? QString() : u", no role"_s),
            finishDeletion(name, true)};
}

// A deletion that ended while PostgreSQL dropped the database: its site and pools are gone by then, and its archives
// are made.
bool isHalfDeleted(const AccountParts &account, const std::optional<Databases> &databases)
{
    const Database *const database = databases ? findDatabase(*databases, account.name) : nullptr;
    return database && database->isInvalid && !account.site && !account.archives.isEmpty();
}

Finding halfDeleted(const AccountParts &account)
{
    return {Level::Fault,
            u"a deletion of the account %1 was cut off while its database was dropped; its archives are %2"_s.arg(
                account.name, account.archives.join(u" and "_s)),
            finishDeletion(account.name, false)};
}

bool hasDomain(const AccountParts &account)
{
    return hosting::isStoredDomain(account.domain);
}

QList<Finding> checkDomain(const AccountParts &account)
{
    if (hasDomain(account) && account.domain.size() > hosting::kLongestRotatedDomain)
        return {
            {Level::Fault,
             u"the domain of the account %1 has %2 characters, too many for the names of its logs: none of Apache's "
             "logs is rotated any more"_s.arg(account.name)
                 .arg(account.domain.size()),
             u"corvctl account domain %1 DOMAIN"_s.arg(account.name)}};
    if (hasDomain(account))
        return {};
    const QString found = domainOfSite(account);
    const QString domain = found.isEmpty() ? u"DOMAIN"_s : found;
    return {{Level::Fault,
             u"the user database has no valid domain for the account %1, only '%2'"_s.arg(account.name, account.domain),
             u"usermod --comment '%1' %2"_s.arg(hosting::accountComment(domain), account.name)}};
}

QList<Finding> checkDatabase(const QString &name, const Databases &databases)
{
    QList<Finding> findings;
    if (!findRole(databases, name)) {
        findings.append({Level::Fault, u"the account %1 has no role in PostgreSQL"_s.arg(name),
                         u"runuser -u postgres -- createuser %1 && corvctl account password %1"_s.arg(name)});
    }

    const Database *const database = findDatabase(databases, name);
    if (database && database->owner != name) {
        findings.append({Level::Fault,
                         u"the database of the account %1 belongs to %2, not to %1"_s.arg(name, database->owner),
                         sql(u"ALTER DATABASE \"%1\" OWNER TO \"%1\""_s.arg(name))});
    }
    if (database && database->isOpen) {
        findings.append({Level::Fault, u"every role may connect to the database of the account %1"_s.arg(name),
                         sql(u"REVOKE ALL ON DATABASE \"%1\" FROM PUBLIC"_s.arg(name))});
    }
    if (database) {
        for (const Obstacle &obstacle : obstaclesOf(*database))
            findings.append({Level::Fault, obstacle.what, sql(obstacle.statement)});
        return findings;
    }

    // A restore that was cut off between its two renames: what stands aside is the live data.
    if (findDatabase(databases, name + kReplaced)) {
        findings.append(
            {Level::Fault,
             u"the database of the account %1 is missing; a restore that was cut off left it as %1__old"_s.arg(name),
             sql(u"ALTER DATABASE \"%1__old\" RENAME TO \"%1\""_s.arg(name))});
        return findings;
    }
    findings.append({Level::Fault, u"the account %1 has no database"_s.arg(name),
                     u"runuser -u postgres -- createdb -O %1 %1 && "_s.arg(name) +
                         sql(u"REVOKE ALL ON DATABASE \"%1\" FROM PUBLIC"_s.arg(name))});
    return findings;
}

// Nothing where the parts of a suspension agree. An account without a role is told of that elsewhere.
QList<Finding> checkSuspension(const AccountParts &account, const Role *role)
{
    const bool siteOff = isSuspendedSite(account);
    const bool roleOff = role && !role->mayLogIn;
    const bool agree = siteOff == account.expired && (!role || roleOff == siteOff);
    if (agree || !account.site)
        return {};
    QStringList parts = {u"its site is "_s + (siteOff ? u"off"_s : u"on"_s),
                         u"its user is "_s + (account.expired ? u"locked"_s : u"not locked"_s)};
    if (role)
        parts.append(u"its role is "_s + (roleOff ? u"locked"_s : u"not locked"_s));
    return {{Level::Fault, u"the account %1 is only half suspended: %2"_s.arg(account.name, parts.join(", "_L1)),
             u"corvctl account suspend %1"_s.arg(account.name)}};
}

QString reloadPhp(const QString &php)
{
    return u"systemctl reload php%1-fpm"_s.arg(php);
}

QList<Finding> checkPools(const AccountParts &account, const QString &php, bool suspended)
{
    QList<Finding> findings;
    const QString &name = account.name;
    const bool hasPool = account.pools.contains(php);
    if (suspended && hasPool) {
        findings.append({Level::Fault, u"the account %1 is suspended, but its PHP pool still runs"_s.arg(name),
                         u"mv -f %1 %2; "_s.arg(hosting::poolPath(php, name), hosting::parkedPoolPath(php, name)) +
                             reloadPhp(php)});
    }

    // What a deletion that broke off has taken: it would come back without PHP.
    if (suspended && !php.isEmpty() && account.pools.isEmpty() && account.parkedPools.isEmpty()) {
        findings.append({Level::Fault,
                         u"the suspended account %1 has no pool in PHP %2 to come back with"_s.arg(name, php),
                         u"corvctl doctor --pool %1 >%2"_s.arg(name, hosting::parkedPoolPath(php, name))});
    }

    const bool needsPool = !suspended && !php.isEmpty() && !hasPool;
    if (needsPool && account.parkedPools.contains(php)) {
        findings.append({Level::Fault,
                         u"the PHP pool of the account %1 is put aside as if it were suspended"_s.arg(name),
                         u"corvctl account resume %1"_s.arg(name)});
    } else if (needsPool && account.pools.isEmpty()) { // one elsewhere is told of with PHP's versions
        findings.append(
            {Level::Fault, u"the account %1 has no pool in PHP %2, the version in force"_s.arg(name, php),
             u"corvctl doctor --pool %1 >%2 && "_s.arg(name, hosting::poolPath(php, name)) + reloadPhp(php)});
    } else if (!suspended && account.parkedPools.contains(php)) {
        findings.append({Level::Fault,
                         u"the account %1 has a pool that was put aside beside the one in use"_s.arg(name),
                         u"rm "_s + hosting::parkedPoolPath(php, name)});
    }

    if (!suspended && account.unreadPools.contains(php)) {
        findings.append({Level::Fault,
                         u"PHP %2 does not run for the account %1: nothing listens at its socket"_s.arg(name, php),
                         // A reload hands down a socket whose name was taken away, and makes no other.
                         u"systemctl restart php%1-fpm"_s.arg(php)});
    }
    for (const QString &version : account.openPools) {
        const QString path = hosting::poolPath(version, name);
        findings.append(
            {Level::Fault,
             u"the pool of the account %1 in PHP %2 lets in more than its own user, home or web server"_s.arg(name,
                                                                                                              version),
             u"corvctl doctor --pool %1 >%2 && systemctl reload php%3-fpm"_s.arg(
                 name, account.pools.contains(version) ? path : hosting::parkedPoolPath(version, name), version)});
    }
    for (const QString &other : account.pools) {
        // Two versions that serve one pool fight for its socket.
        if (other != php && hasPool) {
            findings.append(
                {Level::Fault, u"the account %1 has a second pool in PHP %2"_s.arg(name, other),
                 u"rm %1; systemctl try-reload-or-restart php%2-fpm; "_s.arg(hosting::poolPath(other, name), other) +
                     reloadPhp(php)});
        }
    }
    return findings;
}

// Whether a site that the agent has not written follows links to others' files, or asks for PHP of another's pool.
bool reachesOthers(const QByteArray &site, const QString &account)
{
    static const QRegularExpression links(u"^\\s*Options\\b.*(?<!-)\\b(FollowSymLinks|All)\\b"_s,
                                          QRegularExpression::MultilineOption |
                                              QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression socket(u"/run/php/corv-([a-z0-9]+)\\.sock"_s);
    const QString text = QString::fromUtf8(site);
    if (links.match(text).hasMatch())
        return true;
    QRegularExpressionMatchIterator found = socket.globalMatch(text);
    while (found.hasNext()) {
        if (found.next().captured(1) != account)
            return true;
    }
    return false;
}

QList<Finding> checkSite(const AccountParts &account, const QString &php, bool suspended)
{
    const QString &name = account.name;
    const QString enable = u"a2ensite -q %1 && systemctl reload apache2"_s.arg(hosting::siteName(name));
    if (!account.site) {
        return {{Level::Fault, u"the account %1 has no Apache site"_s.arg(name),
                 u"corvctl account %1 %2 && %3"_s.arg(suspended ? u"suspend"_s : u"resume"_s, name, enable)}};
    }

    QList<Finding> findings;
    if (!account.siteEnabled)
        findings.append({Level::Fault, u"the Apache site of the account %1 is not enabled"_s.arg(name), enable});
    if (suspended)
        return findings;

    const QString resume = u"corvctl account resume %1"_s.arg(name);
    const QString wanted = hosting::vhost(name, account.domain, !php.isEmpty(), false);
    if (*account.site == wanted.toUtf8() || *account.site == hosting::vhost(name, account.domain, false, true).toUtf8())
        return findings;
    // A full disk or a power cut: the account has no site then, whatever else is said to be there.
    if (wanted.toUtf8().startsWith(*account.site)) {
        findings.append({Level::Fault, u"the site file of the account %1 was cut off"_s.arg(name), resume});
    } else if (*account.site == hosting::vhost(name, account.domain, false, false).toUtf8()) {
        findings.append({Level::Fault,
                         u"the site of the account %1 runs no PHP, but shows the source of its pages"_s.arg(name),
                         resume});
    } else if (reachesOthers(*account.site, name)) {
        findings.append(
            {Level::Fault,
             u"the site of the account %1 leads to what is not its own: other files or another pool"_s.arg(name),
             resume});
    } else {
        findings.append(
            {Level::Note,
             u"the site file of the account %1 is not what the agent writes; it will be overwritten"_s.arg(name),
             resume});
    }
    return findings;
}

} // namespace

bool letsMoreIn(const QByteArray &pool, const QString &account)
{
    static const QStringList fences = {u"user"_s,
                                       u"group"_s,
                                       u"listen"_s,
                                       u"listen.owner"_s,
                                       u"listen.group"_s,
                                       u"listen.mode"_s,
                                       u"php_admin_value[open_basedir]"_s};
    const QByteArrayList lines = pool.split('\n');
    const QByteArrayList wanted = hosting::pool(account).split('\n');
    return std::any_of(wanted.cbegin(), wanted.cend(), [&](const QByteArray &line) {
        const QString key = QString::fromUtf8(line).section(u" = "_s, 0, 0);
        return fences.contains(key) && !lines.contains(line);
    });
}

QList<Finding> checkAccount(const AccountParts &account, const QString &php, const std::optional<Databases> &databases)
{
    if (!hosting::validUsername(account.name)) {
        return {{Level::Fault,
                 u"the user '%1' is marked as an account, but no account can have that name"_s.arg(account.name),
                 u"usermod --comment '' "_s + shellWord(account.name)}};
    }
    if (isHalfDeleted(account, databases))
        return {halfDeleted(account)};
    if (isHalfThere(account, databases))
        return {halfThere(account.name, findRole(*databases, account.name) != nullptr)};

    QList<Finding> findings = checkDomain(account);
    const Role *const role = databases ? findRole(*databases, account.name) : nullptr;
    if (databases)
        findings += checkDatabase(account.name, *databases);

    // Without the domain it cannot be told what its site file should hold, or whether that is a suspension's.
    if (!hasDomain(account))
        return findings + checkPools(account, php, account.expired);
    const bool suspended = isSuspendedSite(account) || (!account.site && account.expired);
    return findings + checkSuspension(account, role) + checkPools(account, php, suspended) +
           checkSite(account, php, suspended);
}

} // namespace corv::ctl
