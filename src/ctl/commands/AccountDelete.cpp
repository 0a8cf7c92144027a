#include "common/Account.h"
#include "common/Archives.h"
#include "common/Environment.h"
#include "common/Fd.h"
#include "common/Paths.h"
#include "common/Run.h"
#include "common/Site.h"
#include "ctl/Command.h"
#include "ctl/Input.h"
#include "ctl/RestoreJournal.h"
#include "ctl/Session.h"
#include "ctl/commands/Account.h"
#include "ctl/commands/AccountSites.h"
#include "ctl/doctor/Facts.h"
#include "ctl/restore/Kept.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QDateTime>
#include <QFile>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// How the agent begins where it has archived the home, and then not gone on.
constexpr auto kNoDump = "could not dump the database, so nothing was deleted"_L1;
constexpr auto kNoFiles = "could not archive the files, so nothing was deleted"_L1;

// What is known of an account that is to be deleted, beside what the agent looks at itself.
struct Deletion
{
    QList<Obstacle> obstacles; // what keeps its database from being dumped, without which it is not deleted
    bool lacksHome = false;    // without which it is not either
    // The archives of a deletion that was cut off while the database was dropped.
    std::optional<DeletionArchives> cutOff;
};

bool isHere(const Session &session)
{
    return !session.options.printOnly && session.options.hosts.empty() && ::geteuid() == 0;
}

// Nothing of it where this server cannot be asked: the agent then says what is wrong.
Deletion lookInto(const Session &session, const QString &name)
{
    Deletion deletion;
    if (!isHere(session) || !hosting::validUsername(name))
        return deletion;
    cleanEnvironment();
    QString problem;
    const std::optional<Databases> databases = readDatabases(&problem);
    if (!databases || !hosting::isOurs(name))
        return deletion;
    deletion.obstacles = obstaclesOfAccount(name, *databases);
    deletion.lacksHome = !exists(hosting::homePath(name));

    const Database *const database = findDatabase(*databases, name);
    const bool isDropped = !database || database->isInvalid;
    if (isDropped && !exists(hosting::sitePath(name))) {
        for (const DeletionArchives &archives : deletionArchives(kArchives, name)) {
            if (archives.isWhole)
                deletion.cutOff = archives;
        }
    }
    return deletion;
}

// Why one of the two archives cannot be unpacked, empty when both can.
QString checkArchives(const DeletionArchives &archives)
{
    if (const QString problem = hosting::run(u"tar"_s, {u"-tzf"_s, archives.home}); !problem.isEmpty())
        return u"%1 is damaged: %2"_s.arg(archives.home, oneSentence(problem));
    const Fd dump(::open(QFile::encodeName(archives.dump).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    hosting::Streams streams;
    streams.inputFile = dump.get();
    // Its list of contents stands at the beginning, and is whole also where the rows behind it are damaged.
    const QStringList readAll = {u"-u"_s, u"postgres"_s, u"--"_s, u"pg_restore"_s, u"--file"_s, u"/dev/null"_s};
    const QString problem = dump ? hosting::runWith(u"runuser"_s, readAll, streams) : u"cannot be read"_s;
    return problem.isEmpty() ? QString() : u"%1 is damaged: %2"_s.arg(archives.dump, oneSentence(problem));
}

// Shows the archives of a deletion that was cut off. Gives the status to end with where they do not stand for what is
// gone.
std::optional<int> showCutOff(const Session &session, const DeletionArchives &archives, bool isForced)
{
    note(u"a deletion of %1 was cut off while its database was dropped; its archives, %2:"_s.arg(
        archives.account, humanBytes(archives.bytes)));
    note(u"  "_s + archives.home);
    note(u"  "_s + archives.dump);
    const QString problem = checkArchives(archives);
    if (problem.isEmpty()) {
        note(u"both can be read to their ends, so the deletion goes on"_s);
        return {};
    }
    if (!isForced)
        return refuse(session, problem, u"nothing was deleted; --force deletes the rest all the same"_s);
    note(problem);
    return {};
}

// Lifts the obstacles where that is wanted, and shows how in any case. Gives the status to end with where one stays.
std::optional<int> liftObstacles(const QList<Obstacle> &obstacles, bool isWanted)
{
    for (const Obstacle &obstacle : obstacles) {
        note(obstacle.what);
        note(u"  "_s + obstacle.statement);
        if (!isWanted)
            continue;
        if (const Outcome outcome = runStatements({obstacle.statement}); !outcome.succeeded)
            return fail(kRefused, QString::fromUtf8(outcome.errors).simplified());
    }
    if (!obstacles.isEmpty() && !isWanted)
        return fail(kRefused, u"the account cannot be deleted as it is, so nothing was deleted"_s,
                    u"--force has these statements run before"_s);
    return {};
}

// Gives the account an empty home where it has none, as an archive takes one.
std::optional<int> makeHome(const QString &name, bool isWanted)
{
    const QStringList args = {u"-d"_s, u"-o"_s, name, u"-g"_s, name, u"-m"_s, u"0710"_s, hosting::homePath(name)};
    note(u"the account %1 has no home, so it cannot be archived"_s.arg(name));
    note(u"  install "_s + args.join(u' '));
    if (!isWanted)
        return fail(kRefused, u"the account cannot be deleted as it is, so nothing was deleted"_s,
                    u"--force has this command run before"_s);
    const QString problem = hosting::run(u"install"_s, args);
    return problem.isEmpty() ? std::nullopt : std::optional(fail(kRefused, problem));
}

// Writes down what neither archive holds while it is there.
void keepStateOf(const Session &session, const QString &name)
{
    if (!isHere(session) || !hosting::isOurs(name))
        return;
    if (const QString problem = keepStates(); !problem.isEmpty())
        note(
            u"what no archive of %1 holds, its passwords' hashes and its jobs, could not all be written down: %2"_s.arg(
                name, problem));
}

// A deletion that was refused leaves what it had archived by then.
void tellWhatStays(const Session &session, const Answer &answer, const QString &name, qint64 began)
{
    const QString error = answer.reply.value("error"_L1).toString();
    if (!error.startsWith(kNoDump) && !error.startsWith(kNoFiles))
        return;
    if (!isHere(session)) {
        note(u"what was archived before stays in %1 there, readable to root alone"_s.arg(kArchives));
        return;
    }
    for (const DeletionArchives &archives : deletionArchives(kArchives, name)) {
        if (archives.isWhole || archives.changed < began || archives.home.isEmpty())
            continue;
        note(u"the archive of the home that was made before stays, %1, in a folder of root's: %2"_s.arg(
            humanBytes(archives.bytes), archives.home));
    }
}

} // namespace

int deleteAccount(Session &session, const Given &given)
{
    const QString name = given.text("ACCOUNT");
    const QStringList beside = findSitesBeside(session, name);
    warnOfSites(beside, name);
    const bool isForced = given.has("--force");
    const std::optional<QString> typed = confirmation(
        session, u"This deletes the account, its files and its database. Type %1 to go on:"_s.arg(escaped(name)));
    if (!typed)
        return kWrongUsage;
    if (*typed != name)
        return fail(kWrongUsage, u"that is not the account's name, so nothing was deleted"_s);

    const Deletion deletion = lookInto(session, name);
    if (deletion.cutOff) {
        if (const std::optional<int> end = showCutOff(session, *deletion.cutOff, isForced))
            return *end;
    }
    const bool isWanted = isForced || deletion.cutOff;
    if (const std::optional<int> end = liftObstacles(deletion.obstacles, isWanted))
        return *end;
    if (deletion.lacksHome) {
        if (const std::optional<int> end = makeHome(name, isWanted))
            return *end;
    }

    keepStateOf(session, name);
    // Files have the time of a clock that is some milliseconds behind.
    const qint64 began = QDateTime::currentSecsSinceEpoch() * 1000;
    const Answer answer = ask(session, u"hosting.delete"_s, {{u"username"_s, name}, {u"confirm"_s, *typed}});
    if (answer.ok())
        tellOfSitesLeft(session, beside);
    if (answer.ok() && isHere(session))
        removeJournal(name); // a restore that made it goes on no more
    if (isHere(session) && hosting::validUsername(name))
        (void)keepStates(); // puts the state beside the archives; the watcher tries that too
    const QString archive = answer.reply.value("archive"_L1).toString();
    if (const std::optional<int> end = settled(session, answer)) {
        if (!archive.isEmpty() && !session.options.json)
            note(u"the archives are at %1"_s.arg(archive));
        tellWhatStays(session, answer, name, began);
        return *end;
    }
    QList<Fact> facts = {{u"Deleted"_s, text(name)}, {u"Archives"_s, whole(archive)}};
    if (deletion.cutOff)
        facts.append({u"Its database"_s, text(deletion.cutOff->dump)});
    printFacts(session, facts);
    return kDone;
}

} // namespace corv::ctl
