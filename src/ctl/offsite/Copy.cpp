#include "ctl/offsite/Copy.h"

#include "common/Account.h"
#include "common/Archives.h"
#include "common/BackupFolders.h"
#include "common/BackupManifest.h"
#include "common/Fd.h"
#include "common/Tree.h"
#include "ctl/Interrupt.h"
#include "ctl/offsite/Fetch.h"
#include "ctl/offsite/Stream.h"
#include "ctl/screen/Terminal.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QSysInfo>

#include <algorithm>

#include <fcntl.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// A whole home over a slow line. What takes longer than this every night does not fit into the night.
constexpr int kCopyMs = 8 * 3'600'000;
constexpr qint64 kPruneSeconds = 604'800;
constexpr qint64 kLargestCache = 1'073'741'824;
constexpr qint64 kManifestBytes = 16'777'216;
constexpr auto kHomeEnd = "-home.tar.gz"_L1;
constexpr qint64 kMillisecondsPerSecond = 1000;

// One run: what it works with, and what it has found so far.
struct Run
{
    const Repository &repository;
    const Say &say;
    QString server;
    QString backup;
    QString folder;
    QList<Snapshot> there; // of this server
    OffsiteState state;
};

void tellProblem(Run &run, const QString &what, const QString &problem)
{
    if (problem.isEmpty())
        return;
    run.state.problems.append(what + u": "_s + problem);
    run.say(u"  ! "_s + run.state.problems.last());
}

bool isThere(const Run &run, const QString &tag, const QString &path)
{
    return std::any_of(run.there.cbegin(), run.there.cend(), [&](const Snapshot &one) {
        return one.has(tag) && one.backup() == run.backup && (path.isEmpty() || one.path == path);
    });
}

// What each snapshot of the backup is made with. Its time is the backup's, by which it is kept or forgotten.
QStringList backupArgs(const Run &run, const QString &tag)
{
    const QString time = QDateTime::fromSecsSinceEpoch(backup::timeOf(run.backup)).toString(u"yyyy-MM-dd HH:mm:ss"_s);
    return {u"backup"_s, u"--quiet"_s, u"--json"_s, u"--host"_s, run.server, u"--time"_s, time,
            u"--tag"_s,  kOurTag,      u"--tag"_s,  tag,         u"--tag"_s, run.backup};
}

void copyHome(Run &run, const QString &account, const QJsonObject &manifest)
{
    const QString name = homeName(account);
    ++run.state.homes;
    if (isThere(run, kHomeTag, u'/' + name))
        return;
    const bool isPart = isPartOnly(manifest, account);
    QStringList args = backupArgs(run, kHomeTag);
    if (isPart)
        args += {u"--tag"_s, kPartTag};
    if (isWithoutDatabase(manifest, run.folder, account))
        args += {u"--tag"_s, kBareTag};
    args += {u"--stdin"_s, u"--stdin-filename"_s, name};
    const QString archive = u"%1/accounts/%2%3"_s.arg(run.folder, account, kHomeEnd);
    // The tar stream itself, of which what did not change since yesterday is there already; compressed, all of it
    // would differ from the first change on.
    const Streamed done =
        stream({u"gzip"_s, {u"-dc"_s, u"--"_s, archive}, {}},
               {u"restic"_s, resticArgs(run.repository, args), run.repository.environment}, kCopyMs, tarEndProblem);
    if (!done.problem.isEmpty()) {
        tellProblem(run, account, done.problem);
        return;
    }
    const qint64 added = addedBytes(done.said);
    run.state.bytes += done.bytes;
    run.state.added += std::max<qint64>(added, 0);
    run.say(u"  %1: %2, %3 of it new%4"_s.arg(account, humanBytes(done.bytes), humanBytes(std::max<qint64>(added, 0)),
                                              isPart ? u"; the backup could not save it whole"_s : QString()));
}

void copyFolder(Run &run, const QString &tag, const QString &what, const QStringList &words)
{
    const Answered done = restic(run.repository, backupArgs(run, tag) + words, kCopyMs);
    tellProblem(run, what, done.problem);
    if (!done.problem.isEmpty())
        return;
    const qint64 added = std::max<qint64>(addedBytes(done.output), 0);
    run.state.added += added;
    run.say(u"  %1: %2 new"_s.arg(what, humanBytes(added)));
}

// What deletions left, which no backup holds. The folders beside it are the backups, and what was fetched.
void copyDeleted(Run &run)
{
    const bool hasSome = !QDir(kArchives).entryList(QDir::Files).isEmpty();
    if (hasSome && !isThere(run, kDeletedTag, {}))
        copyFolder(run, kDeletedTag, u"archives of deletions"_s,
                   {u"--exclude"_s, kArchives + u"/*/*"_s, u"--"_s, kArchives});
}

void forgetKind(Run &run, const QString &tag, const QString &group, const QStringList &more = {})
{
    const QStringList args = QStringList{u"forget"_s, u"--quiet"_s,         u"--host"_s,     run.server,
                                         u"--tag"_s,  kOurTag + u',' + tag, u"--group-by"_s, group} +
                             run.repository.place.retention + more;
    tellProblem(run, u"forgetting"_s, restic(run.repository, args, kAskMs).problem);
}

// The databases of all accounts are one snapshot a night, and nights go on where an account has none any more: by the
// rules alone they would go from under its homes, which stand still. Those of each account's newest night stay. Not
// those of every night of which some home is left: each account that is deleted would keep all databases of the
// server from two weeks on end, for good.
void forgetRest(Run &run)
{
    QString problem;
    const QList<Snapshot> left = readSnapshots(run.repository, &problem);
    tellProblem(run, u"forgetting"_s, problem);
    if (!problem.isEmpty())
        return;
    QStringList kept;
    for (const QString &backup : backupsInNeed(left, run.server))
        kept += {u"--keep-tag"_s, backup};
    forgetKind(run, kRestTag, u"host"_s, kept);
}

// restic's own rules decide, each kind by itself: of homes, each account.
void forget(Run &run)
{
    const OffsitePlace &place = run.repository.place;
    if (place.appendOnly || place.retention.isEmpty())
        return;
    forgetKind(run, kHomeTag, u"host,paths"_s);
    forgetRest(run);
    forgetKind(run, kDeletedTag, u"host"_s);
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    if (now - run.state.prunedAt < kPruneSeconds)
        return;
    const QString problem = restic(run.repository, {u"prune"_s, u"--quiet"_s}, kCopyMs).problem;
    tellProblem(run, u"taking away what was forgotten"_s, problem);
    if (problem.isEmpty())
        run.state.prunedAt = now;
}

void copyBackup(Run &run)
{
    qint64 budget = kManifestBytes;
    const QJsonObject manifest = backup::readManifest(run.folder, &budget);
    // What is small and cannot be had from anywhere else first.
    if (!isThere(run, kRestTag, {})) {
        copyFolder(run, kRestTag, u"databases, settings, state"_s,
                   {u"--exclude"_s, u"*"_s + kHomeEnd, u"--"_s, run.folder});
    }
    for (const QString &account : homesIn(run.folder)) {
        if (interrupted())
            return;
        copyHome(run, account, manifest);
    }
    copyDeleted(run);
}

} // namespace

QStringList homesIn(const QString &folder)
{
    QStringList accounts;
    for (const QString &file : QDir(folder + u"/accounts"_s).entryList({u"*"_s + kHomeEnd}, QDir::Files, QDir::Name)) {
        const QString account = file.chopped(kHomeEnd.size());
        if (hosting::validUsername(account))
            accounts.append(account);
    }
    return accounts;
}

bool isPartOnly(const QJsonObject &manifest, const QString &account)
{
    const QJsonArray errors = manifest.value("errors"_L1).toArray();
    return std::any_of(errors.cbegin(), errors.cend(), [&account](const QJsonValue &error) {
        return error.toString().startsWith(account + u" files:"_s) && !backup::isHarmless(error.toString());
    });
}

bool isWithoutDatabase(const QJsonObject &manifest, const QString &folder, const QString &account)
{
    const QJsonArray errors = manifest.value("errors"_L1).toArray();
    return !QFile::exists(u"%1/accounts/%2-db.dump"_s.arg(folder, account)) ||
           std::any_of(errors.cbegin(), errors.cend(), [&account](const QJsonValue &error) {
               return error.toString().startsWith(account + u" database:"_s);
           });
}

void boundCache(const Repository &repository)
{
    const QString folder = repository.environment.value(u"RESTIC_CACHE_DIR"_s);
    if (backup::sizeOf(folder) <= kLargestCache)
        return;
    const Fd parent(::open(QFile::encodeName(QFileInfo(folder).path()).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (parent)
        (void)removeTree(parent.get(), QFile::encodeName(QFileInfo(folder).fileName()).constData());
}

OffsiteState copyNewest(const Repository &repository, const QString &destination, const OffsiteState &before,
                        const Say &say)
{
    QElapsedTimer clock;
    clock.start();
    Run run = {repository, say, QSysInfo::machineHostName(), backup::newestIn(destination), {}, {}, before};
    run.folder = destination + u'/' + run.backup;
    run.state.problems.clear();
    run.state.homes = run.state.bytes = run.state.added = 0;
    if (run.backup.isEmpty()) {
        tellProblem(run, destination, u"there is no finished backup in it"_s);
    } else {
        say(u"copying the backup %1 to %2"_s.arg(run.backup, repository.place.repository));
        boundCache(repository);
        // What a run left that was killed. restic takes only those for stale that nobody can hold any more.
        (void)restic(repository, {u"unlock"_s, u"--quiet"_s}, kAskMs);
        QString problem;
        run.there = readSnapshots(repository, &problem);
        run.there.removeIf([&run](const Snapshot &one) { return one.server != run.server; });
        tellProblem(run, u"the place cannot be reached"_s, problem);
        if (problem.isEmpty()) {
            copyBackup(run);
            if (interrupted())
                tellProblem(run, u"the run"_s, u"interrupted"_s);
            else
                forget(run);
        }
    }
    run.state.ranAt = QDateTime::currentSecsSinceEpoch();
    run.state.seconds = clock.elapsed() / kMillisecondsPerSecond;
    if (run.state.problems.isEmpty()) {
        run.state.copied = run.backup;
        run.state.copiedAt = run.state.ranAt;
    }
    return run.state;
}

} // namespace corv::ctl
