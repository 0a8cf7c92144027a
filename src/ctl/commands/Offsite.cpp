#include "ctl/commands/Offsite.h"

#include "common/BackupConfig.h"
#include "common/BackupFolders.h"
#include "common/Environment.h"
#include "common/Json.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/offsite/Copy.h"
#include "ctl/offsite/Lock.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>
#include <QProcess>
#include <QSet>
#include <QSettings>

#include <cstdio>
#include <vector>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// A backup that was made while the one before was copied is copied in the same run.
constexpr int kMostRounds = 3;

void printJson(const Session &session, const QJsonObject &object)
{
    const QByteArray line = compactJson(object);
    print((session.terminal.out ? escapedJson(line) : line) + '\n');
}

int run(Session &session, const Given &)
{
    int status = kDone;
    if (const std::optional<int> end = notHere(session, u"run"_s))
        return *end;
    const std::optional<Repository> repository = openedPlace(session, &status);
    if (!repository)
        return status;

    const InterruptGuard guard;
    QString problem;
    const Fd lock = lockOffsite(&problem);
    if (!lock)
        return fail(kRefused, problem);
    const bool isTold = !session.options.json && !session.options.plain;
    const Say say = [isTold](const QString &line) {
        if (!isTold)
            return;
        printLine(escaped(line));
        (void)std::fflush(stdout); // to the journal as it happens
    };
    const QSettings settings(settingsPath(session.options), QSettings::IniFormat);
    const QString destination = backup::load(settings).destination;
    OffsiteState state = readOffsite();
    for (int round = 0; round < kMostRounds && !interrupted(); ++round) {
        state = copyNewest(*repository, destination, state, say);
        if (!state.problems.isEmpty() || state.copied == backup::newestIn(destination))
            break;
    }
    if (const QString unkept = keepOffsite(state); !unkept.isEmpty())
        state.problems.append(unkept);
    if (session.options.json)
        printJson(session, {{u"ok"_s, state.problems.isEmpty()}, {u"state"_s, objectOf(state)}});
    if (!state.problems.isEmpty()) {
        return fail(kRefused, u"not all is off-site: "_s + state.problems.join("; "_L1),
                    u"corvctl offsite run tries again what is missing"_s);
    }
    say(u"the backup %1 is off-site: %2 homes, %3, %4 of it new, in %5"_s.arg(
        state.copied, QString::number(state.homes), humanBytes(state.bytes), humanBytes(state.added),
        humanSeconds(state.seconds)));
    return kDone;
}

Cell outcomeOf(const QString &problem)
{
    return problem.isEmpty() ? text(u"well"_s, Colour::Good) : text(oneSentence(problem), Colour::Bad);
}

Cell timeOrNever(qint64 seconds)
{
    return seconds > 0 ? time(seconds) : text(u"never"_s, Colour::Warning);
}

int status(Session &session, const Given &)
{
    if (const std::optional<int> end = notHere(session, u"status"_s))
        return *end;
    const OffsitePlace place = placeIn(QSettings(settingsPath(session.options), QSettings::IniFormat));
    if (place.repository.isEmpty())
        return refuse(session, u"backups lie on this server alone: no off-site place is set up"_s, QString(kSetUp));
    const OffsiteState state = readOffsite();
    if (session.options.json) {
        printJson(session, {{u"ok"_s, true},
                            {u"repository"_s, place.repository},
                            {u"appendOnly"_s, place.appendOnly},
                            {u"retention"_s, place.retention.join(u' ')},
                            {u"state"_s, objectOf(state)}});
        return kDone;
    }
    for (const QString &problem : place.problems)
        note(problem);
    const QString kept = place.appendOnly            ? u"all; what may go is for the vault to say"_s
                         : place.retention.isEmpty() ? u"all"_s
                                                     : place.retention.join(u' ');
    QList<Fact> facts = {{u"Place"_s, whole(place.repository)},
                         {u"Forgetting"_s, place.appendOnly ? text(u"refused to this server"_s, Colour::Good)
                                                            : text(u"possible from this server"_s, Colour::Warning)},
                         {u"Kept"_s, text(kept)},
                         {u"Newest there"_s, state.copied.isEmpty() ? nothing() : text(state.copied)},
                         {u"Last run"_s, timeOrNever(state.ranAt)}};
    if (state.ranAt > 0) {
        facts.append({u"It took"_s, span(state.seconds)});
        facts.append(
            {u"It found"_s, text(u"%1 homes, %2"_s.arg(QString::number(state.homes), humanBytes(state.bytes)))});
        facts.append({u"New there"_s, bytes(state.added)});
        facts.append({u"Its outcome"_s, outcomeOf(state.problems.join("; "_L1))});
    }
    facts.append({u"Last check"_s, timeOrNever(state.checkedAt)});
    if (state.checkedAt > 0) {
        facts.append({u"It read"_s, text(u"part %1 of %2 of the data"_s.arg(state.part).arg(kCheckParts))});
        facts.append({u"Its outcome"_s, outcomeOf(state.checkProblem)});
    }
    facts.append({u"Last drill"_s, timeOrNever(state.drilledAt)});
    if (state.drilledAt > 0)
        facts.append({u"Its outcome"_s, outcomeOf(state.drillProblem)});
    printFacts(session, facts);
    return kDone;
}

int list(Session &session, const Given &given)
{
    int status = kDone;
    if (const std::optional<int> end = notHere(session, u"list"_s))
        return *end;
    const std::optional<Repository> repository = openedPlace(session, &status);
    if (!repository)
        return status;
    QString problem;
    const QList<Snapshot> all = readSnapshots(*repository, &problem);
    if (!problem.isEmpty())
        return refuse(session, problem);

    const QString account = given.text("ACCOUNT");
    QSet<QString> databases;
    for (const Snapshot &one : all) {
        if (one.has(kRestTag))
            databases.insert(one.server + u' ' + one.backup());
    }
    QList<Row> rows;
    QJsonArray objects;
    for (const Snapshot &one : all) {
        const QString of = one.path.mid(1).chopped(one.has(kHomeTag) ? homeName(QString()).size() : 0);
        if (!one.has(kHomeTag) || (!account.isEmpty() && of != account))
            continue;
        const bool hasDatabase = databases.contains(one.server + u' ' + one.backup()) && !one.has(kBareTag);
        rows.append({text(of), text(one.backup()), text(one.server),
                     one.has(kPartTag) ? text(u"not whole"_s, Colour::Warning) : text(u"whole"_s),
                     yesNo(hasDatabase, Colour::None, Colour::Warning)});
        objects.append(QJsonObject{{u"username"_s, of},
                                   {u"backup"_s, one.backup()},
                                   {u"server"_s, one.server},
                                   {u"whole"_s, !one.has(kPartTag)},
                                   {u"database"_s, hasDatabase}});
    }
    if (session.options.json)
        printJson(session, {{u"ok"_s, true}, {u"homes"_s, objects}});
    else
        printTable(session, {u"ACCOUNT"_s, u"BACKUP"_s, u"SERVER"_s, u"HOME"_s, u"DATABASE"_s}, rows);
    return kDone;
}

// Whatever restic can do that has no command here, with everything that it needs to get there.
int passOn(Session &session, const Given &given)
{
    int status = kDone;
    if (const std::optional<int> end = notHere(session, u"restic"_s))
        return *end;
    const std::optional<Repository> repository = openedPlace(session, &status);
    if (!repository)
        return status;
    for (auto entry = repository->environment.cbegin(); entry != repository->environment.cend(); ++entry)
        qputenv(entry.key().toUtf8().constData(), entry.value().toUtf8());
    std::vector<std::string> words = {"restic"};
    for (const QString &word : optionsFor(repository->place))
        words.push_back(word.toStdString());
    for (const QString &word : QProcess::splitCommand(given.text("ARGUMENTS")))
        words.push_back(word.toStdString());
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    (void)::execvp("restic", argv.data());
    return fail(kRefused, u"restic cannot be started"_s);
}

} // namespace

std::optional<int> notHere(const Session &session, const QString &command)
{
    if (session.options.printOnly)
        return fail(kWrongUsage, u"nothing is asked of the agent for that: this server copies its backups itself"_s);
    if (!session.options.hosts.empty()) {
        return fail(
            kWrongUsage, u"what is off-site is worked with on the server itself, not from here"_s,
            u"ssh %1 corvctl offsite %2 ..."_s.arg(QString::fromStdString(session.options.hosts.front()), command));
    }
    if (::geteuid() != 0) {
        return fail(kNoConnection, u"the key to what is off-site is root's alone"_s,
                    u"run it as root: sudo corvctl offsite %1 ..."_s.arg(command));
    }
    cleanEnvironment();
    return {};
}

std::optional<Repository> openedPlace(const Session &session, int *status)
{
    const OffsitePlace place = placeIn(QSettings(settingsPath(session.options), QSettings::IniFormat));
    if (place.repository.isEmpty()) {
        *status = refuse(session, u"no off-site place is set up"_s, QString(kSetUp));
        return {};
    }
    if (!place.problems.isEmpty()) {
        *status = refuse(session, place.problems.join("; "_L1), u"man corvane.ini tells of [offsite]"_s);
        return {};
    }
    QString problem;
    std::optional<Repository> repository = openPlace(place, kKeyFile, &problem);
    if (!repository)
        *status = refuse(session, problem);
    return repository;
}

Command offsiteCommand()
{
    return {"offsite",
            "Copies of the backups on another machine",
            {},
            nullptr,
            {offsiteSetupCommand(),
             {"run", "Copy the newest backup there now; what corv-offsite.service runs after each", {}, run},
             {"status", "Show where copies go, how old the newest is and what the last check found", {}, status},
             {"list",
              "List the homes that are there, and which of them have their databases",
              {{"ACCOUNT", "only those of one account", Kind::Optional, Names::Account}},
              list},
             offsiteCheckCommand(),
             offsiteFetchCommand(),
             offsiteDrillCommand(),
             {"restic",
              "Run restic with the place, its key and its credentials",
              {{"ARGUMENTS", "what restic is to do, as one word: 'snapshots --json'"}},
              passOn}}};
}

} // namespace corv::ctl
