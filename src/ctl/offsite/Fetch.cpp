#include "ctl/offsite/Fetch.h"

#include "common/Fd.h"
#include "common/Json.h"
#include "common/Run.h"
#include "ctl/offsite/Stream.h"
#include "ctl/verify/Fault.h"

#include <QFile>
#include <QMap>

#include <algorithm>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kFetchMs = 8 * 3'600'000;
constexpr mode_t kMode = 0600;
// Twice what a state may have.
constexpr qint64 kLongestLine = 8'388'608;

Fd newFile(const QString &path)
{
    return Fd(::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
}

// The paths that a snapshot holds.
QStringList pathsIn(const Repository &repository, const Snapshot &snapshot, QString *problem)
{
    const Answered listed = restic(repository, {u"ls"_s, u"--json"_s, u"--no-lock"_s, snapshot.id}, kAskMs);
    *problem = listed.problem;
    QStringList paths;
    for (const QByteArray &line : listed.output.split('\n')) {
        const QString path = parseObject(line).value("path"_L1).toString();
        if (!path.isEmpty())
            paths.append(path);
    }
    return paths;
}

QString fetchFile(const Repository &repository, const Snapshot &snapshot, const QString &path, const QString &to)
{
    const Fd file = newFile(to);
    if (!file)
        return u"cannot write "_s + to;
    hosting::Streams streams;
    streams.outputFile = file.get();
    hosting::Surroundings surroundings;
    surroundings.environment = repository.environment;
    surroundings.milliseconds = kFetchMs;
    return hosting::runWith(u"restic"_s,
                            resticArgs(repository, {u"dump"_s, u"--quiet"_s, u"--no-lock"_s, snapshot.id, path}),
                            streams, surroundings);
}

Fetched fetchHome(const Repository &repository, const QString &account, const SavedHome &saved, const QString &to)
{
    const Fd file = newFile(to);
    if (!file)
        return {u"cannot write "_s + to, {}, 0};
    // Compressed again, as every backup has it.
    const Streamed done = stream(
        {u"restic"_s,
         resticArgs(repository, {u"dump"_s, u"--quiet"_s, u"--no-lock"_s, saved.home.id, u'/' + homeName(account)}),
         repository.environment},
        {u"gzip"_s, {u"-c"_s}, {}, file.get()}, kFetchMs, tarEndProblem);
    return {done.problem, {}, done.bytes};
}

// Leaves of the state of each account, in one file, that of this one in another: passwords' hashes of all the others
// are no affair of whoever is handed the folder. False where there is none of it.
bool keepOwnState(const QString &all, const QString &account, const QString &to)
{
    QFile states(all);
    if (!states.open(QIODevice::ReadOnly))
        return false;
    QByteArray own;
    while (!states.atEnd()) {
        const QByteArray line = states.readLine(kLongestLine);
        if (parseObject(line).value("username"_L1).toString() == account)
            own += line;
    }
    (void)QFile::remove(all);
    const Fd file = own.isEmpty() ? Fd() : newFile(to);
    return file && ::write(file.get(), own.constData(), static_cast<size_t>(own.size())) == own.size();
}

// The database, and what no archive holds.
QString fetchRest(const Repository &repository, const QString &account, const SavedHome &saved, const QString &folder,
                  QStringList *missing)
{
    QStringList there;
    if (saved.rest) {
        QString problem;
        there = pathsIn(repository, *saved.rest, &problem);
        // cppcheck-suppress knownConditionTrueFalse ; it takes the call for one that writes nothing there
        if (!problem.isEmpty())
            return problem;
    }
    const QString base = saved.rest ? saved.rest->path : QString();
    const QString dump = account + u"-db.dump"_s;
    const auto state = u"accounts.state"_s;
    const auto states = u".accounts.state.all"_s;
    const std::pair<QString, QString> files[] = {{u"/accounts/"_s + dump, dump}, {u'/' + state, states}};
    for (const auto &[path, name] : files) {
        if (!there.contains(base + path)) {
            missing->append(u"the backup %1 has no %2"_s.arg(saved.backup, path.section(u'/', -1)));
            continue;
        }
        if (const QString wrong = fetchFile(repository, *saved.rest, base + path, folder + u'/' + name);
            !wrong.isEmpty())
            return wrong;
    }
    if (QFile::exists(folder + u'/' + states) && !keepOwnState(folder + u'/' + states, account, folder + u'/' + state))
        missing->append(u"the backup %1 has no state of %2"_s.arg(saved.backup, account));
    if (!QFile::exists(folder + u'/' + dump))
        return {};
    const std::optional<QString> fault = faultOfDump(folder + u'/' + dump, {});
    return fault ? dump + u' ' + *fault : QString();
}

// How much of an account one has; the more, the higher.
int worth(const SavedHome &saved)
{
    return (saved.isWholeHome() ? 2 : 0) + (saved.hasDatabase() ? 1 : 0);
}

} // namespace

QList<SavedHome> savedOf(const QList<Snapshot> &all, const QString &account, const QString &server)
{
    QList<SavedHome> saved;
    for (const Snapshot &home : all) {
        const bool isOurs = home.has(kHomeTag) && home.path == u'/' + homeName(account);
        if (!isOurs || home.backup().isEmpty() || (!server.isEmpty() && home.server != server))
            continue;
        SavedHome one = {home.backup(), home, {}};
        const auto rest = std::find_if(all.cbegin(), all.cend(), [&home](const Snapshot &other) {
            return other.has(kRestTag) && other.backup() == home.backup() && other.server == home.server;
        });
        if (rest != all.cend())
            one.rest = *rest;
        saved.append(one);
    }
    return saved;
}

std::optional<SavedHome> newestOf(const QList<SavedHome> &saved, const QString &date)
{
    std::optional<SavedHome> newest;
    for (const SavedHome &one : saved) {
        if (one.backup.startsWith(date) && (!newest || worth(one) >= worth(*newest)))
            newest = one;
    }
    return newest;
}

QString passedOver(const QList<SavedHome> &saved, const QString &date, const SavedHome &taken)
{
    const auto last = std::find_if(saved.crbegin(), saved.crend(),
                                   [&date](const SavedHome &one) { return one.backup.startsWith(date); });
    if (last == saved.crend() || last->backup == taken.backup)
        return {};
    QStringList lacks;
    if (!last->isWholeHome())
        lacks.append(u"the whole home"_s);
    if (!last->hasDatabase())
        lacks.append(u"the database"_s);
    return u"the newer backup %1 is passed over, as it does not have %2"_s.arg(last->backup, lacks.join(" and "_L1));
}

QStringList backupsInNeed(const QList<Snapshot> &all, const QString &server)
{
    QMap<QString, Snapshot> rests;
    for (const Snapshot &one : all) {
        if (one.has(kRestTag) && one.server == server)
            rests.insert(one.backup(), one);
    }
    QMap<QString, SavedHome> newest;
    for (const Snapshot &home : all) {
        if (!home.has(kHomeTag) || home.server != server)
            continue;
        SavedHome one = {home.backup(), home, {}};
        if (const auto rest = rests.constFind(one.backup); rest != rests.cend())
            one.rest = *rest;
        const auto best = newest.constFind(home.path);
        if (best == newest.cend() || worth(one) >= worth(*best))
            newest.insert(home.path, one);
    }
    QStringList backups;
    for (const SavedHome &one : std::as_const(newest)) {
        if (one.hasDatabase() && !backups.contains(one.backup))
            backups.append(one.backup);
    }
    backups.sort();
    return backups;
}

Fetched fetchAccount(const Repository &repository, const QString &account, const SavedHome &saved,
                     const QString &folder)
{
    const QString archive = u"%1/%2-home.tar.gz"_s.arg(folder, account);
    Fetched fetched = fetchHome(repository, account, saved, archive);
    if (!fetched.problem.isEmpty())
        return fetched;
    if (const std::optional<QString> fault = faultOfHome(archive, account, {})) {
        fetched.problem = u"%1-home.tar.gz %2"_s.arg(account, *fault);
        return fetched;
    }
    if (saved.home.has(kPartTag))
        fetched.missing.append(u"the backup %1 could not save the home whole"_s.arg(saved.backup));
    fetched.problem = fetchRest(repository, account, saved, folder, &fetched.missing);
    return fetched;
}

} // namespace corv::ctl
