#include "ctl/move/Plan.h"

#include "common/Account.h"
#include "common/AskedDomain.h"
#include "common/Pool.h"
#include "common/Quotas.h"
#include "ctl/doctor/Facts.h"
#include "ctl/doctor/SiteFacts.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <algorithm>

#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kVersionsInMajor = 10'000; // PostgreSQL's version as a number: 150013
constexpr auto kHomes = "/home";
// New databases are copies of it.
const auto kTemplate = u"SELECT pg_encoding_to_char(encoding) || ' ' || datcollate || ' ' || datctype "
                       "FROM pg_database WHERE datname = 'template1'"_s;

QStringList inTheWayOf(const QString &account)
{
    const NameFacts facts = readNameFacts(account);
    if (facts.hasUser)
        return {u"there is a user %1 here"_s.arg(account)};
    QStringList found;
    for (const Remainder &one : remaindersOf(facts, QDateTime::currentDateTime().toString(u"yyyyMMdd-HHmmss"_s)))
        found.append(one.what);
    return found;
}

QString holderOfNumber(qint64 uid)
{
    const passwd *const user = uid > 0 ? ::getpwuid(static_cast<uid_t>(uid)) : nullptr;
    return user ? QString::fromLocal8Bit(user->pw_name) : QString();
}

qint64 freeBytes(const QByteArray &path, qint64 *inodes)
{
    struct statvfs status = {};
    if (::statvfs(path.constData(), &status) != 0)
        return 0;
    if (inodes && status.f_files > 0)
        *inodes = static_cast<qint64>(status.f_favail);
    return static_cast<qint64>(status.f_bavail) * static_cast<qint64>(status.f_frsize);
}

bool isSameDisk(const QByteArray &one, const QByteArray &other)
{
    struct stat first = {};
    struct stat second = {};
    return ::stat(one.constData(), &first) == 0 && ::stat(other.constData(), &second) == 0 &&
           first.st_dev == second.st_dev;
}

void addDatabase(Here *here)
{
    const Outcome outcome = runStatements({u"SHOW server_version_num"_s, kTemplate, u"SHOW data_directory"_s});
    const QList<QByteArray> lines = outcome.output.split('\n');
    if (!outcome.succeeded || lines.size() < 3)
        return;
    here->postgres = lines[0].toInt() / kVersionsInMajor;
    const QList<QByteArray> words = lines[1].split(' ');
    if (words.size() == 3)
        here->database = {QString::fromUtf8(words[0]), QString::fromUtf8(words[1]), QString::fromUtf8(words[2])};
    here->databaseFree = freeBytes(lines[2], nullptr);
    here->isOneDisk = isSameDisk(lines[2], kHomes);
}

} // namespace

Here lookHere(const There &there)
{
    Here here;
    here.inTheWay = inTheWayOf(there.state.username);
    here.domainHolder = holderHere(there.state.domain, there.state.username);
    here.uidHolder = holderOfNumber(there.state.uid);
    here.php = hosting::phpVersion();
    here.hasQuotas = quota::enabled();
    here.hasRsync = !QStandardPaths::findExecutable(u"rsync"_s).isEmpty();
    here.hasHttps = isHttpsOnHere();
    here.hasShell = isShellPath(there.state.shell) && QFileInfo(there.state.shell).isExecutable();
    here.homeFree = freeBytes(kHomes, &here.homeInodes);
    addDatabase(&here);
    return here;
}

QString otherDomain(const QString &account, const QString &there)
{
    const QString here = hosting::domainOf(account);
    if (here == there)
        return {};
    // What is no domain is nothing to be typed.
    if (!hosting::isStoredDomain(there))
        return u"it has the domain %1 here and another there"_s.arg(here);
    return u"it has the domain %1 here and %2 there; corvctl account domain %3 %4 gives it that one here"_s.arg(
        here, there, account, hosting::askedDomain(there));
}

} // namespace corv::ctl::moving
