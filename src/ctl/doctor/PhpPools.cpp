#include "ctl/doctor/PhpPools.h"

#include "common/Account.h"
#include "common/Pool.h"
#include "common/Site.h"
#include "ctl/doctor/Accounts.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/doctor/Visitors.h"

#include <QCollator>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>

#include <algorithm>
#include <cerrno>

#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qint64 kLargestSite = 65'536;
constexpr auto kParkedEnd = ".suspended"_L1;

// The pools alone, without a word about whose they are.
PhpPools poolsOf(const QString &version)
{
    PhpPools pools;
    pools.version = version;
    pools.isInstalled = isFpmInstalled(version);
    const QDir folder(u"/etc/php/%1/fpm/pool.d"_s.arg(version));
    for (const QString &file : folder.entryList(QDir::Files | QDir::NoSymLinks, QDir::Name)) {
        const QString account = accountOfFile(file);
        if (account.isEmpty())
            pools.hasOthers = pools.hasOthers || file.endsWith(".conf"_L1);
        else if (file.endsWith(kParkedEnd))
            pools.parked.append(account);
        else
            pools.live.append(account);
    }
    return pools;
}

// Takes those out that are no account's. A pool whose user is somebody else's does no harm and is left alone.
void takeOut(const QSet<QString> &users, const QSet<QString> &accounts, PhpPools *pools)
{
    for (QStringList *const names : {&pools->live, &pools->parked}) {
        const bool isLive = names == &pools->live;
        for (const QString &name : *names) {
            if (!users.contains(name))
                pools->nobodys.append(isLive ? hosting::poolPath(pools->version, name)
                                             : hosting::parkedPoolPath(pools->version, name));
            else if (!accounts.contains(name))
                pools->hasOthers = pools->hasOthers || isLive;
        }
        names->removeIf([&](const QString &name) { return !accounts.contains(name); });
    }
}

} // namespace

bool isFpmInstalled(const QString &version)
{
    // Not every root's PATH has that folder, and what seems to be gone is moved from.
    const QString name = u"php-fpm"_s + version;
    return QFileInfo(u"/usr/sbin/"_s + name).isExecutable() || !QStandardPaths::findExecutable(name).isEmpty();
}

bool hasPools(const QString &version)
{
    return !QDir(u"/etc/php/%1/fpm/pool.d"_s.arg(version)).entryList({u"*.conf"_s}, QDir::Files).isEmpty();
}

bool isPhpVersion(const QString &word)
{
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(u"[0-9]{1,2}\\.[0-9]{1,2}"_s));
    return pattern.match(word).hasMatch();
}

QList<PhpPools> readPhpPools(QString *problem)
{
    problem->clear();
    QStringList names = hosting::phpVersions();
    names.removeIf([](const QString &name) { return !isPhpVersion(name); });
    QCollator collator(QLocale(QLocale::English, QLocale::UnitedStates));
    collator.setNumericMode(true);
    std::sort(names.begin(), names.end(), collator);

    // Pools before users: an account that is made meanwhile has its user first, so that none seems to be nobody's.
    QList<PhpPools> versions;
    for (const QString &name : names)
        versions.append(poolsOf(name));
    QSet<QString> users;
    QSet<QString> accounts;
    for (const hosting::User &user : hosting::users()) {
        users.insert(user.name);
        if (hosting::hasMarker(user.comment))
            accounts.insert(user.name);
    }
    if (!users.contains(u"root"_s)) {
        *problem = u"the users of this server cannot be read"_s;
        return {};
    }
    for (PhpPools &pools : versions)
        takeOut(users, accounts, &pools);
    return versions;
}

bool isNoUser(const QString &name)
{
    errno = 0;
    const bool isMissing = !::getpwnam(name.toLocal8Bit().constData());
    return isMissing && (errno == 0 || errno == ENOENT);
}

PoolState wantedState(const QString &account)
{
    const std::optional<QByteArray> site = readUpTo(hosting::sitePath(account), kLargestSite);
    const QString domain = hosting::domainOf(account);
    if (!site || domain.isEmpty())
        return PoolState::Any;
    if (*site == hosting::vhost(account, domain, false, true).toUtf8())
        return PoolState::Parked;
    return *site == hosting::vhost(account, domain, true, false).toUtf8() ? PoolState::Live : PoolState::Any;
}

QStringList socketsLeftBy(const QString &version, const QList<PhpPools> &versions)
{
    QStringList own;
    QStringList others;
    for (const PhpPools &pools : versions)
        (pools.version == version ? own : others) += pools.live;
    own.removeIf([&](const QString &account) {
        return others.contains(account) || !QFileInfo::exists(u"/run/php/corv-%1.sock"_s.arg(account));
    });
    if (own.size() > 1 && others.isEmpty())
        return {u"/run/php/corv-*.sock"_s};
    for (QString &account : own)
        account = u"/run/php/corv-%1.sock"_s.arg(account);
    return own;
}

QList<Finding> checkPhpPools(const QList<PhpPools> &versions, const QString &inForce, const QStringList &cutOff)
{
    QList<Finding> findings;
    if (cutOff.size() == 2) {
        findings.append({Level::Fault,
                         u"a move of the accounts from PHP %1 to %2 was cut off"_s.arg(cutOff[0], cutOff[1]),
                         u"corvctl php move %1 %2 --confirm %2"_s.arg(cutOff[0], cutOff[1])});
    }
    QStringList served; // where they belong: a second pool elsewhere is told of with the account
    for (const PhpPools &pools : versions) {
        if (pools.version == inForce)
            served = pools.live;
    }
    for (const PhpPools &pools : versions) {
        const bool isInForce = pools.version == inForce;
        if (isInForce && !pools.isInstalled) {
            findings.append({Level::Fault,
                             u"PHP %1 is in force by its folder of pools, but its FPM is not installed"_s.arg(inForce),
                             u"apt-get install -y php%1-fpm"_s.arg(inForce)});
        }
        QStringList elsewhere = pools.live + pools.parked;
        elsewhere.removeIf([&](const QString &account) { return served.contains(account); });
        if (isInForce || elsewhere.isEmpty())
            continue;
        const QString whose = someOf(elsewhere);
        const QString move = u"corvctl php move %1 %2 --confirm %2"_s.arg(pools.version, inForce);
        if (!pools.isInstalled)
            findings.append({Level::Fault,
                             u"PHP %1 is not installed any more, but has the pools of %2"_s.arg(pools.version, whose),
                             move});
        else
            findings.append(
                {Level::Note, u"%1 run PHP %2; new accounts get PHP %3"_s.arg(whose, pools.version, inForce), move});
    }
    return findings;
}

QList<Finding> checkStoppedPhp(const QStringList &accounts, bool isWatched)
{
    const QString mend = u"systemctl enable corv-php-watch; systemctl restart corv-php-watch"_s;
    QList<Finding> findings;
    if (!accounts.isEmpty())
        findings.append({Level::Fault,
                         u"%1 stopped a process of PHP, which may hold up the pages of all"_s.arg(someOf(accounts)),
                         mend});
    else if (!isWatched)
        findings.append({Level::Fault,
                         u"a process of PHP that an account stops may hold up the pages of all: its watcher is off"_s,
                         mend});
    return findings;
}

} // namespace corv::ctl
