#include "ctl/verify/Proof.h"

#include "common/Psql.h"
#include "common/TimedRun.h"
#include "ctl/Interrupt.h"
#include "ctl/verify/CopyCounter.h"
#include "ctl/verify/Reader.h"
#include "ctl/verify/Watched.h"

#include <QFile>
#include <QRegularExpression>

#include <algorithm>
#include <memory>

#include <pwd.h>
#include <sys/statvfs.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kStatementsMs = 60'000;
constexpr qint64 kLeastFree = 1'073'741'824;
constexpr qint64 kLargerThanDump = 4; // of what a dump makes of itself, at the least, where it is mostly rows
constexpr qsizetype kLongestError = 160;

// The role's own password, which what a dump runs may set, lets nobody in: it has run out. Its settings and all that
// it owns go with it. It sees all rows, as a superuser's restore does.
const QStringList kMake = {
    u"CREATE ROLE corv_verify LOGIN BYPASSRLS VALID UNTIL '1970-01-01'"_s,
    u"CREATE DATABASE corv_verify OWNER corv_verify TEMPLATE template0 ALLOW_CONNECTIONS false"_s,
    // Nobody has been in it by then.
    u"REVOKE ALL ON DATABASE corv_verify FROM PUBLIC"_s, u"ALTER DATABASE corv_verify ALLOW_CONNECTIONS true"_s};
const QStringList kClear = {
    u"DO $$ BEGIN IF EXISTS (SELECT FROM pg_roles WHERE rolname = 'corv_verify') THEN "
    "ALTER ROLE corv_verify NOLOGIN; END IF; END $$"_s,
    u"SELECT count(pg_terminate_backend(pid)) FROM pg_stat_activity WHERE usename = 'corv_verify'"_s,
    u"DROP DATABASE IF EXISTS corv_verify WITH (FORCE)"_s, u"DROP ROLE IF EXISTS corv_verify"_s};
// Whose database of that name there is, and where the server keeps its files.
const QStringList kAsk = {
    u"SELECT count(*) FROM pg_database WHERE datname = 'corv_verify' AND pg_get_userbyid(datdba) <> 'corv_verify'"_s,
    u"SHOW data_directory"_s};

// Runs statements one after the other as the superuser.
Outcome runAsSuperuser(const QStringList &statements)
{
    QStringList args = hosting::psqlAs(u"postgres"_s) + hosting::psqlUpToAnError();
    for (const QString &statement : statements)
        args += {u"-c"_s, statement};
    return runWithin(kStatementsMs, u"runuser"_s, args, hosting::psqlVariables());
}

QString wordsOf(const Outcome &outcome)
{
    const QString said = QString::fromUtf8(outcome.errors).simplified().left(kLongestError);
    return outcome.finished ? said : u"PostgreSQL does not answer"_s;
}

qint64 freeBytes(const QByteArray &folder)
{
    struct statvfs status = {};
    if (::statvfs(folder.constData(), &status) != 0)
        return 0;
    return static_cast<qint64>(status.f_bavail) * static_cast<qint64>(status.f_frsize);
}

Proof noted(const QString &note)
{
    Proof proof;
    proof.note = note;
    return proof;
}

Proof faulty(const QString &fault)
{
    Proof proof;
    proof.fault = fault;
    return proof;
}

// Loads the dump into the new database. folder: where the server's files lie, of which half of what is free stays so.
Proof load(const SavedFile &saved, const Bounds &bounds, const QByteArray &folder)
{
    const qint64 least = freeBytes(folder) / 2;
    bool isFull = false;
    const auto goesOn = [&] {
        isFull = freeBytes(folder) < least;
        return !isFull && !interrupted();
    };
    // Without owners and rights, which are other roles' affair; and without what would reach for other servers.
    const Ended loaded = watchAsReader({u"pg_restore"_s, u"--dbname=corv_verify"_s, u"--format=custom"_s,
                                        u"--no-owner"_s, u"--no-acl"_s, u"--no-publications"_s, u"--no-subscriptions"_s,
                                        u"--no-security-labels"_s, u"--no-tablespaces"_s},
                                       saved.file.get(), {}, bounds, {{}, goesOn});
    if (isFull)
        return noted(u"it grows beyond half of what is free where PostgreSQL keeps its files"_s);
    if (loaded.wasStopped)
        return noted(u"the proof was interrupted"_s);
    if (loaded.tookTooLong)
        return noted(u"restoring it takes longer than %1 min"_s.arg(bounds.milliseconds / 60'000));
    return loaded.succeeded ? Proof() : judgeErrors(loaded.errors);
}

// The rows of the same tables, as the new database has them; nothing where they could not be counted.
QList<qint64> countRestored(const QMap<QByteArray, qint64> &dumped, const Bounds &bounds)
{
    QByteArray statements;
    for (auto table = dumped.cbegin(); table != dumped.cend(); ++table)
        statements += "SELECT count(*) FROM ONLY " + table.key() + ";\n";
    QByteArray output;
    // The role may have been given settings by what the dump ran; these go before.
    const qsizetype most = (dumped.size() + 1) * 24; // a number of nineteen digits and its line feed
    const auto take = [&](const QByteArray &piece) {
        output += piece.left(std::max<qsizetype>(most - output.size(), 0));
    };
    const Ended counted = watchAsReader(
        {u"psql"_s, u"--no-psqlrc"_s, u"-qtA"_s, u"-v"_s, u"ON_ERROR_STOP=1"_s, u"--dbname=corv_verify"_s}, -1,
        statements, bounds, {take, [] { return !interrupted(); }},
        hosting::psqlVariables(u"-cstatement_timeout=0 -crow_security=off"_s));
    QList<qint64> counts;
    if (!counted.succeeded)
        return counts;
    for (const QByteArray &line : output.split('\n')) {
        bool isNumber = false;
        const qint64 count = line.toLongLong(&isNumber);
        if (isNumber)
            counts.append(count);
    }
    return counts.size() == dumped.size() ? counts : QList<qint64>();
}

Proof proveHere(const SavedFile &saved, const Bounds &bounds, const QByteArray &folder)
{
    QMap<QByteArray, qint64> dumped;
    if (const Proof read = countDumped(saved, bounds, &dumped); !read.fault.isEmpty() || !read.note.isEmpty())
        return read;
    Proof proof = load(saved, bounds, folder);
    if (!proof.fault.isEmpty())
        return proof;
    const QList<qint64> counted = countRestored(dumped, bounds);
    proof.tables = static_cast<int>(counted.size());
    for (const qint64 count : counted)
        proof.rows += count;
    if (!proof.note.isEmpty())
        return proof; // what is missing is missing for that reason
    if (interrupted())
        return noted(u"the proof was interrupted"_s);
    if (counted.size() != dumped.size())
        return faulty(u"was restored, but its tables cannot be read"_s);
    proof.fault = missingRows(dumped, counted);
    return proof;
}

} // namespace

Proof countDumped(const SavedFile &saved, const Bounds &bounds, QMap<QByteArray, qint64> *rows)
{
    CopyCounter counter;
    const Ended read =
        watchAsReader({u"pg_restore"_s, u"--data-only"_s, u"--file=-"_s, u"--format=custom"_s}, saved.file.get(), {},
                      bounds, {[&](const QByteArray &piece) { counter.take(piece); }, [] { return !interrupted(); }});
    if (read.wasStopped)
        return noted(u"the proof was interrupted"_s);
    if (read.tookTooLong)
        return noted(u"reading it takes too long for a proof"_s);
    if (!read.succeeded)
        return faulty(u"is damaged: "_s + complaintIn(QString::fromUtf8(read.errors)));
    if (counter.isTooMuch())
        return noted(u"it has more tables than a proof counts"_s);
    *rows = counter.rows();
    return {};
}

QString missingRows(const QMap<QByteArray, qint64> &dumped, const QList<qint64> &counted)
{
    qsizetype at = 0;
    for (auto table = dumped.cbegin(); table != dumped.cend(); ++table, ++at) {
        // More are no loss: an extension brings rows of its own.
        if (at >= counted.size() || counted[at] < table.value())
            return u"has %1 rows of the table %2, of which %3 were restored"_s.arg(
                QString::number(table.value()), QString::fromUtf8(table.key()).simplified().left(kLongestError),
                QString::number(counted.value(at)));
    }
    return {};
}

Proof judgeErrors(const QByteArray &errors)
{
    static const QRegularExpression error(u"(?:ERROR|FATAL): +([^\\n]*)"_s);
    // What PostgreSQL says to a role that is no superuser, and to one that it does not let in.
    static const QRegularExpression rights(
        u"\\A(?:permission denied|must be (?:superuser|owner|a member|able to)|only (?:superuser|roles with)|"
        ".*authentication failed|no pg_hba\\.conf entry|role .corv_verify. )"_s,
        QRegularExpression::CaseInsensitiveOption);
    const QString text = QString::fromUtf8(errors);
    QString denied;
    QString failed;
    for (auto found = error.globalMatch(text); found.hasNext();) {
        const QString words = found.next().captured(1).simplified().left(kLongestError);
        QString &kind = rights.match(words).hasMatch() ? denied : failed;
        if (kind.isEmpty())
            kind = words;
    }
    if (!denied.isEmpty())
        // What else went wrong may follow from that, and is told with it.
        return noted(u"only a superuser can restore all of it: "_s + denied +
                     (failed.isEmpty() ? QString() : u"; then: "_s + failed));
    return faulty(u"cannot be restored: "_s + (failed.isEmpty() ? complaintIn(text) : failed));
}

QString clearProof()
{
    // No role, no database and no session of it: the usual case, in one question.
    const Outcome left = runAsSuperuser({u"SELECT (SELECT count(*) FROM pg_roles WHERE rolname = 'corv_verify') + "
                                         "(SELECT count(*) FROM pg_database WHERE datname = 'corv_verify')"_s});
    if (left.succeeded && left.output.trimmed() == "0")
        return {};
    const Outcome owner = runAsSuperuser(kAsk);
    if (!owner.succeeded)
        return wordsOf(owner);
    if (!owner.output.startsWith("0\n"))
        return u"there is a database corv_verify that is somebody else's"_s;
    const Outcome cleared = runAsSuperuser(kClear);
    return cleared.succeeded ? QString() : u"corv_verify cannot be dropped: "_s + wordsOf(cleared);
}

Proof proveDump(const QString &path, const Bounds &bounds)
{
    const SavedFile saved = openSaved(path);
    if (!saved.fault.isEmpty())
        return faulty(saved.fault);
    if (!::getpwnam("corv_verify"))
        return noted(u"there is no system user corv_verify to restore it as; systemd-sysusers makes it"_s);
    if (const QString problem = clearProof(); !problem.isEmpty())
        return noted(problem);
    const Outcome asked = runAsSuperuser(kAsk);
    const QByteArray folder = asked.output.split('\n').value(1);
    if (!asked.succeeded || folder.isEmpty())
        return noted(wordsOf(asked));
    const qint64 needed = std::max(kLeastFree, saved.bytes * kLargerThanDump) * 2;
    if (freeBytes(folder) < needed)
        return noted(u"too little is free in %1 for a second copy of it"_s.arg(QFile::decodeName(folder)));

    const Outcome made = runAsSuperuser(kMake);
    Proof proof = made.succeeded ? proveHere(saved, bounds, folder) : noted(wordsOf(made));
    if (const QString problem = clearProof(); !problem.isEmpty())
        proof.note = problem;
    return proof;
}

} // namespace corv::ctl
