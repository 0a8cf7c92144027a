#include "ctl/move/Plan.h"

#include "common/Account.h"
#include "common/Quotas.h"
#include "ctl/screen/Terminal.h"

#include <QDateTime>
#include <QTimeZone>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

using Level = Check::Level;

constexpr qint64 kMebibyte = 1'048'576;
// The rehearsal's database is there when the last dump is loaded beside it; the dump itself is smaller than either.
constexpr qint64 kDatabases = 2;
constexpr qint64 kReserve = 10; // the part of what comes that is to be left besides: a tenth

qint64 withReserve(qint64 bytes)
{
    return bytes + bytes / kReserve;
}

Check nameCheck(const There &there, const Here &here)
{
    if (here.inTheWay.isEmpty())
        return {u"Account"_s, u"%1, a name that is free here"_s.arg(there.state.username)};
    return {u"Account"_s, here.inTheWay.join("; "_L1), Level::InTheWay};
}

Check domainCheck(const There &there, const Here &here)
{
    const QString &domain = there.state.domain;
    // Its user may have changed it there.
    if (!hosting::isStoredDomain(domain))
        return {u"Domain"_s, u"its user's comment there tells none that is valid"_s, Level::InTheWay};
    if (!here.domainHolder.isEmpty())
        return {u"Domain"_s, u"%1 here answers to %2 already"_s.arg(here.domainHolder, domain), Level::InTheWay};
    if (!there.sitesBeside.isEmpty()) {
        return {u"Domain"_s, u"%1; sites beside its own stay behind: %2"_s.arg(domain, there.sitesBeside.join(", "_L1)),
                Level::Told};
    }
    return {u"Domain"_s, domain};
}

Check uidCheck(const There &there, const Here &here)
{
    const QString number = QString::number(there.state.uid);
    if (here.uidHolder.isEmpty())
        return {u"User id"_s, u"%1 there, which is free here"_s.arg(number)};
    return {u"User id"_s, u"%1 there, which is that of %2 here: it gets another one"_s.arg(number, here.uidHolder),
            Level::Told};
}

Check postgresCheck(const There &there, const Here &here)
{
    const QString about = u"PostgreSQL"_s;
    if (there.postgres == 0 || here.postgres == 0)
        return {about, u"the version %1 was not told"_s.arg(there.postgres == 0 ? u"there"_s : u"here"_s),
                Level::InTheWay};
    const QString versions = u"%1 there, %2 here"_s.arg(there.postgres).arg(here.postgres);
    if (here.postgres < there.postgres)
        return {about, versions + u": a dump does not load into an older one"_s, Level::InTheWay};
    if (!there.state.database)
        return {about, versions + u"; it has no database there"_s, Level::InTheWay};
    const KeptDatabase &was = *there.state.database;
    if (was != here.database) {
        return {about,
                u"%1; its database is %2, %3, %4 there and will be %5, %6, %7"_s.arg(
                    versions, was.encoding, was.collate, was.ctype, here.database.encoding, here.database.collate,
                    here.database.ctype),
                Level::Told};
    }
    return {about, versions, here.postgres == there.postgres ? Level::Well : Level::Told};
}

Check phpCheck(const There &there, const Here &here)
{
    const QString was = there.state.php.isEmpty() ? u"none"_s : there.state.php.join(u' ');
    const QString versions = u"%1 there, %2 here"_s.arg(was, here.php.isEmpty() ? u"none"_s : here.php);
    if (there.state.php.isEmpty() || there.state.php.contains(here.php))
        return {u"PHP"_s, versions};
    return {u"PHP"_s, versions, here.php.isEmpty() ? Level::InTheWay : Level::Told};
}

QString roomText(const QString &what, qint64 bytes, qint64 free)
{
    return u"%1: %2, of %3 that are left here"_s.arg(what, humanBytes(bytes), humanBytes(free));
}

QList<Check> roomChecks(const There &there, const Here &here)
{
    if (there.homeBytes < 0 || there.homeEntries < 0)
        return {{u"Room"_s, u"its home could not be measured there"_s, Level::InTheWay}};
    const qint64 files = withReserve(there.homeBytes);
    const qint64 databases = withReserve(kDatabases * there.databaseBytes);
    const auto check = [](const QString &what, qint64 bytes, qint64 free) {
        return Check{u"Room"_s, roomText(what, bytes, free), bytes <= free ? Level::Well : Level::InTheWay};
    };
    QList<Check> checks;
    if (here.isOneDisk)
        checks.append(check(u"files and two copies of the database"_s, files + databases, here.homeFree));
    else
        checks = {check(u"files"_s, files, here.homeFree),
                  check(u"two copies of the database"_s, databases, here.databaseFree)};
    if (here.homeInodes >= 0 && withReserve(there.homeEntries) > here.homeInodes) {
        checks.append({u"Room"_s,
                       u"%1 files and folders, of %2 that the disk here still takes"_s.arg(there.homeEntries)
                           .arg(here.homeInodes),
                       Level::InTheWay});
    }
    return checks;
}

Check limitCheck(const There &there, const Here &here)
{
    const qint64 limit = there.state.limitMb.value_or(0);
    if (limit == 0)
        return {u"Limit"_s, u"none"_s};
    if (limit > quota::kMaxMb)
        return {u"Limit"_s, u"%1 MiB: more than can be set"_s.arg(limit), Level::InTheWay};
    const QString text = humanBytes(limit * kMebibyte);
    if (!here.hasQuotas)
        return {u"Limit"_s, text + u" there; quotas are off here, so that it is lost"_s, Level::Told};
    return {u"Limit"_s, text};
}

Check loginCheck(const There &there, const Here &here)
{
    const QString &shell = there.state.shell;
    if (shell.isEmpty() || here.hasShell)
        return {u"Login"_s, shell.isEmpty() ? u"no shell"_s : shell};
    return {u"Login"_s, u"%1 there, which is not here: it gets that of new accounts"_s.arg(shell), Level::Told};
}

Check httpsCheck(const There &there, const Here &here, qint64 now)
{
    const auto told = [](const QString &text) { return Check{u"HTTPS"_s, text, Level::Told}; };
    if (!there.https.isOn)
        return {u"HTTPS"_s, u"none there"_s};
    if (!there.https.options)
        return told(u"what was chosen for it cannot be read there, and does not come along"_s);
    if (there.https.options->off)
        return {u"HTTPS"_s, u"switched off there"_s};
    if (!here.hasHttps)
        return told(u"on there and off here: who comes by HTTPS finds nothing before corvctl https on"_s);
    const std::optional<Certificate> &certificate = there.https.certificate;
    if (!certificate || certificate->ends <= now)
        return told(u"no certificate there that is good: one is ordered when its names lead here"_s);
    const QString end = QDateTime::fromSecsSinceEpoch(certificate->ends, QTimeZone::utc()).toString(u"yyyy-MM-dd"_s);
    return {u"HTTPS"_s, u"its certificate comes along, good until "_s + end};
}

Check keptCheck(const There &there)
{
    // One that is on-line there was resumed, or is another one of that name.
    if (there.hasLeft && there.state.isSuspended) {
        return {u"State"_s,
                u"it has left that server for another one, which has it; corvctl account resume %1 --left there "
                "if it is to be that server's again"_s.arg(there.state.username),
                Level::InTheWay};
    }
    if (!there.state.role)
        return {u"State"_s, u"its role could not be read there: its database's password would be lost"_s,
                Level::InTheWay};
    if (there.state.leftOut.isEmpty())
        return {u"State"_s, there.state.isSuspended ? u"suspended, and so it stays"_s : u"on-line"_s};
    return {u"State"_s, u"too much to come along whole: %1"_s.arg(there.state.leftOut.join(", "_L1)), Level::Told};
}

Check rsyncCheck(const There &there, const Here &here)
{
    QStringList missing;
    if (!there.hasRsync)
        missing.append(u"there"_s);
    if (!here.hasRsync)
        missing.append(u"here"_s);
    if (missing.isEmpty())
        return {u"rsync"_s, u"on both"_s};
    return {u"rsync"_s, u"is not installed %1: apt-get install rsync"_s.arg(missing.join(" and "_L1)), Level::InTheWay};
}

} // namespace

QList<Check> checksOf(const There &there, const Here &here)
{
    QList<Check> checks = {nameCheck(there, here), domainCheck(there, here), keptCheck(there),
                           uidCheck(there, here),  loginCheck(there, here),  postgresCheck(there, here),
                           phpCheck(there, here)};
    checks += roomChecks(there, here);
    checks.append(limitCheck(there, here));
    checks.append(httpsCheck(there, here, QDateTime::currentSecsSinceEpoch()));
    checks.append(rsyncCheck(there, here));
    return checks;
}

} // namespace corv::ctl::moving
