#include "ctl/restore/Kept.h"

#include "common/Archives.h"
#include "common/AtomicFile.h"
#include "common/BackupFolders.h"
#include "common/Fd.h"
#include "common/InHand.h"
#include "common/Paths.h"
#include "common/Run.h"
#include "common/Site.h"
#include "ctl/restore/Collect.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

#include <algorithm>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr mode_t kFileMode = 0600;
constexpr qint64 kDay = 86'400;
constexpr qint64 kKeptFor = 180 * kDay;
// A state is written down each night, and at the deletion itself where that is seen in time.
constexpr qint64 kOldestOfDeletion = 2 * kDay;
constexpr qint64 kAfterArchives = 60;
constexpr auto kLock = "/run/corvane/state.lock";

// Two of these at a time would write down what the other has just replaced.
Fd locked()
{
    Fd lock(::open(kLock, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (lock && ::flock(lock.get(), LOCK_EX) != 0)
        return {};
    return lock;
}

bool writeStates(const QString &path, const QList<AccountState> &states)
{
    QByteArray text;
    for (const AccountState &state : states)
        text += stateLine(state);
    return replaceFile(path, text, kFileMode);
}

// Those whose deletion has come so far that things of theirs are gone.
QStringList goingOf(const QList<AccountState> &states)
{
    QStringList going;
    const std::optional<InHand> request = readInHand(kInHandPath);
    for (const AccountState &state : states) {
        const bool isInHand = request && request->command == "hosting.delete"_L1 && request->account == state.username;
        if (isInHand || !exists(hosting::sitePath(state.username)))
            going.append(state.username);
    }
    return going;
}

QStringList placeBesideDeletions(const QList<AccountState> &kept)
{
    QStringList problems;
    for (const DeletionArchives &archives : deletionArchives(kArchives, {})) {
        const QString path = stateBeside(u"%1/%2-%3"_s.arg(kArchives, archives.account, archives.stamp));
        if (exists(path))
            continue;
        const std::optional<AccountState> state =
            stateAt(kept, archives.account, archives.stamp, archives.changed / 1000);
        if (state && !writeStates(path, {*state}))
            problems.append(u"%1 cannot be written"_s.arg(path));
    }
    return problems;
}

} // namespace

QString stateBeside(const QString &base)
{
    return base + u'-' + kStateFile;
}

std::optional<AccountState> stateAt(const QList<AccountState> &kept, const QString &account, const QString &stamp,
                                    qint64 changed)
{
    const qint64 began = QDateTime::fromString(stamp, u"yyyyMMdd-HHmmss"_s).toSecsSinceEpoch();
    for (const AccountState &state : kept) {
        if (state.username == account && state.taken >= began - kOldestOfDeletion &&
            state.taken <= changed + kAfterArchives)
            return state;
    }
    return {};
}

QList<AccountState> merged(const QList<AccountState> &kept, QList<AccountState> found, const QStringList &going,
                           qint64 now)
{
    for (const AccountState &earlier : kept) {
        const auto same = std::find_if(found.begin(), found.end(), [&earlier](const AccountState &state) {
            return state.username == earlier.username;
        });
        // One of another number is another account of the same name.
        if (same != found.end() && same->uid == earlier.uid)
            *same = completed(*same, earlier, going.contains(earlier.username));
        else if (same == found.end() && now - earlier.taken <= kKeptFor)
            found.append(earlier);
    }
    return found;
}

QString keepStates()
{
    const Fd lock = locked();
    if (!lock)
        return u"%1 cannot be locked"_s.arg(QString::fromLatin1(kLock));
    QString problem;
    const QList<AccountState> found = collectStates(&problem);
    QStringList problems = {problem};
    // Looked at last: whatever was seen until here was there before.
    const QStringList going = goingOf(found);

    QList<AccountState> kept;
    if (exists(kKeptStates)) {
        int bad = 0;
        QString unread;
        kept = readStates(kKeptStates, &bad, &unread);
        problems.append(unread);
        if (bad > 0)
            problems.append(u"%1 lines of %2 could not be read"_s.arg(bad).arg(kKeptStates));
    }
    kept = merged(kept, found, going, QDateTime::currentSecsSinceEpoch());
    if (!writeStates(kKeptStates, kept))
        problems.append(u"%1 cannot be written"_s.arg(kKeptStates));
    return hosting::joined(problems + placeBesideDeletions(kept));
}

bool isOfThisRun(const QString &name, qint64 began)
{
    // The hour that comes twice in autumn.
    constexpr qint64 kAmbiguous = 3600;
    return began > 0 && backup::timeOf(name) + kAmbiguous >= began;
}

QString placeInBackup(const backup::Config &config)
{
    const Fd lock = locked();
    const QString newest = backup::newestIn(config.destination);
    const QString folder = config.destination + u'/' + newest;
    const QString path = folder + u'/' + kStateFile;
    struct stat mark = {};
    const bool isMarked = ::lstat(kBackupBegan, &mark) == 0;
    // Of an earlier run there is nothing newer to be told.
    if (newest.isEmpty() || !isMarked || !isOfThisRun(newest, mark.st_mtime) || exists(path))
        return {};
    int bad = 0;
    QString problem;
    const QList<AccountState> kept = readStates(kKeptStates, &bad, &problem);
    if (!problem.isEmpty())
        return problem;

    QList<AccountState> held;
    for (const AccountState &state : kept) {
        const QString base = u"%1/accounts/%2-"_s.arg(folder, state.username);
        if (exists(base + u"home.tar.gz"_s) || exists(base + u"db.dump"_s))
            held.append(state);
    }
    return writeStates(path, held) ? QString() : u"%1 cannot be written"_s.arg(path);
}

} // namespace corv::ctl
