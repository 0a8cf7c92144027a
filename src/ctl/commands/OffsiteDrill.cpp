#include "common/Account.h"
#include "common/Archives.h"
#include "common/Json.h"
#include "common/Run.h"
#include "common/Tree.h"
#include "ctl/Interrupt.h"
#include "ctl/RestoreJournal.h"
#include "ctl/Session.h"
#include "ctl/commands/Offsite.h"
#include "ctl/doctor/Visits.h"
#include "ctl/offsite/Fetch.h"
#include "ctl/offsite/Lock.h"
#include "ctl/offsite/State.h"
#include "ctl/restore/State.h"
#include "ctl/screen/Escape.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QSysInfo>

#include <algorithm>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kStepMs = 2 * 3'600'000;
constexpr int kVisitMs = 30'000;
constexpr mode_t kFolderMode = 0700;
constexpr qsizetype kLargestReply = 1'048'576;
constexpr int kLowestError = 500;
const auto kFolder = u"/var/backups/corvane/.drill"_s;
const auto kDrillName = u"drill"_s;

// One drill: whose, and under which name.
struct Drill
{
    const Session &session;
    QString account;
    QString name;
    QString domain;
};

void say(const Drill &drill, const QString &line)
{
    if (drill.session.options.json || drill.session.options.plain)
        return;
    printLine(escaped(line));
    (void)std::fflush(stdout);
}

void removeFolder()
{
    const Fd parent(::open(QFile::encodeName(kArchives).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (parent && QFile::exists(kFolder))
        (void)removeTree(parent.get(), QFile::encodeName(kFolder.section(u'/', -1)).constData());
}

// A restore of that name that was cut off, unless it is of an account that somebody else makes.
void forgetRestore(const QString &name)
{
    if (const std::optional<Journal> journal = readJournal(name); journal && isOfDrill(name, journal->domain))
        removeJournal(name);
}

// This very program, with another command.
QString self(const QStringList &args, QByteArray *out = nullptr)
{
    hosting::Surroundings surroundings;
    surroundings.milliseconds = kStepMs;
    hosting::Streams streams;
    streams.output = out;
    streams.maxOutput = kLargestReply;
    return hosting::runWith(QFile::symLinkTarget(u"/proc/self/exe"_s), args, streams, surroundings);
}

QStringList archivesOf(const QString &name)
{
    return QDir(kArchives).entryList({name + u"-*"_s}, QDir::Files | QDir::NoSymLinks | QDir::Hidden);
}

// A name that no user has, nor one of whom a deletion has left archives: they may be all that there is of him.
QString freeName()
{
    QStringList taken;
    for (const hosting::User &user : hosting::users())
        taken.append(user.name);
    int number = 1;
    while (taken.contains(kDrillName + QString::number(number)) ||
           !archivesOf(kDrillName + QString::number(number)).isEmpty())
        ++number;
    return kDrillName + QString::number(number);
}

// The account whose turn it is: the one behind the last one, by name, of those that the server has there.
QString nextAccount(const QList<Snapshot> &all, const QString &server, const QString &last)
{
    QStringList accounts;
    for (const Snapshot &one : all) {
        const QString name = one.path.mid(1).chopped(homeName(QString()).size());
        if (one.has(kHomeTag) && one.server == server && !accounts.contains(name) && hosting::isOurs(name))
            accounts.append(name);
    }
    accounts.sort();
    const auto next = std::upper_bound(accounts.cbegin(), accounts.cend(), last);
    if (accounts.isEmpty())
        return {};
    return next == accounts.cend() ? accounts.first() : *next;
}

Visited firstPage(const QString &domain)
{
    return visit({{u"127.0.0.1"_s, 80, domain}}, kVisitMs).value(0);
}

// The page has to be what the live site's is, where there is one.
QString pageProblem(const Drill &drill)
{
    const Visited page = firstPage(drill.domain);
    if (page.status == 0)
        return u"its site does not answer: "_s + page.problem;
    const QString live = hosting::domainOf(drill.account);
    const int wanted = live.isEmpty() ? 0 : firstPage(live).status;
    say(drill, wanted > 0 ? u"its first page: %1, the live one: %2"_s.arg(page.status).arg(wanted)
                          : u"its first page: %1"_s.arg(page.status));
    if (wanted > 0 && page.status != wanted)
        return u"its first page is %1, and the live one %2"_s.arg(page.status).arg(wanted);
    return wanted == 0 && page.status >= kLowestError ? u"its first page is %1"_s.arg(page.status) : QString();
}

// Takes away the account of the drill and the archives that its deletion made: they are what was fetched. Fetching
// takes hours, in which somebody else may have made an account of that name: it is not the drill's.
QString clearAway(const Drill &drill)
{
    QString problem;
    if (hosting::isOurs(drill.name) && isOfDrill(drill.name, hosting::domainOf(drill.name))) {
        const QStringList others = archivesOf(drill.name);
        problem = self({u"account"_s, u"delete"_s, drill.name, u"--force"_s, u"--confirm"_s, drill.name});
        for (const QString &file : problem.isEmpty() ? archivesOf(drill.name) : QStringList()) {
            if (!others.contains(file))
                (void)QFile::remove(kArchives + u'/' + file);
        }
    }
    if (problem.isEmpty())
        forgetRestore(drill.name); // where it ended before there was an account
    removeFolder();
    return problem.isEmpty() ? QString()
                             : u"the account %1 could not be deleted: %2"_s.arg(drill.name, oneSentence(problem));
}

// Makes the account. What is restored may differ from what it was, and its site may show an error, as that of the live
// one does; whether it is as good as that, the number of tables and the pages tell. Its jobs are left out: they would
// work on what the live one works on.
QString restoreProblem(const Drill &drill)
{
    say(drill, u"restoring it as %1, at %2"_s.arg(drill.name, drill.domain));
    QByteArray out;
    const QString problem =
        self({u"--json"_s, u"account"_s, u"restore"_s, drill.account, u"--from"_s, kFolder, u"--as"_s, drill.name,
              u"--domain"_s, drill.domain, u"--no-jobs"_s, u"--confirm"_s, drill.name},
             &out);
    const QJsonObject reply = parseObject(out);
    if (!reply.value("ok"_L1).toBool()) {
        const QString error = reply.value("error"_L1).toString();
        return u"it could not be restored: "_s + (error.isEmpty() ? oneSentence(problem) : error);
    }
    for (const auto &lost : reply.value("lost"_L1).toArray())
        say(drill, u"not as it was: "_s + lost.toString());
    if (const QString leftOut = reply.value("leftOut"_L1).toString(); !leftOut.isEmpty())
        say(drill, u"left out, since the live one has them: "_s + leftOut);
    // The page does not show that: it asks the live database.
    const qint64 lost = reply.value("lostTables"_L1).toInteger();
    const QString lacking = lost > 0 ? u"%1 of its database's tables did not come back"_s.arg(lost) : QString();
    return hosting::joined({lacking, pageProblem(drill)});
}

QString work(const Drill &drill, const Repository &repository, const SavedHome &saved)
{
    removeFolder(); // of a drill that was killed
    (void)::mkdir(QFile::encodeName(kArchives).constData(), kFolderMode);
    if (::mkdir(QFile::encodeName(kFolder).constData(), kFolderMode) != 0)
        return u"%1 cannot be made"_s.arg(kFolder);
    say(drill, u"fetching %1 of the backup %2 and reading it through"_s.arg(drill.account, saved.backup));
    const Fetched fetched = fetchAccount(repository, drill.account, saved, kFolder);
    if (!fetched.problem.isEmpty())
        return fetched.problem;
    for (const QString &missing : fetched.missing)
        say(drill, missing);
    if (interrupted())
        return u"interrupted"_s;
    return hosting::joined(QStringList{fetched.missing} << restoreProblem(drill));
}

// Takes away what drills have left that were killed. Returns what could not be.
QString clearFormer(const Session &session)
{
    QStringList problems;
    for (const hosting::User &user : hosting::users()) {
        const QString domain = hosting::domainIn(user.comment);
        if (!hosting::hasMarker(user.comment) || !isOfDrill(user.name, domain))
            continue;
        const Drill former = {session, {}, user.name, domain};
        say(former, u"taking away %1, which a drill before has left"_s.arg(user.name));
        problems.append(clearAway(former));
    }
    // What a deletion has made whose drill was killed before it could take it away.
    for (const DeletionArchives &one : deletionArchives(kArchives, {})) {
        const std::optional<AccountState> state = readState(one.state, one.account);
        if (!state || !isOfDrill(one.account, state->domain))
            continue;
        for (const QString &file : {one.home, one.dump, one.state})
            (void)QFile::remove(file);
    }
    for (const Journal &journal : journalsInHand()) {
        if (isOfDrill(journal.target, journal.domain) && !hosting::isOurs(journal.target))
            removeJournal(journal.target);
    }
    return hosting::joined(problems);
}

// Without a word on the server it is this one: others that copy to the same place have accounts of the same names.
int refuseNothing(const Session &session, const Given &given, const QString &account, const QString &server)
{
    const QString whose = account.isEmpty() ? u"nothing of this server's accounts"_s : u"nothing of "_s + account;
    return refuse(session, u"%1 is there from the server %2"_s.arg(whose, server),
                  given.has("--server")
                      ? u"corvctl offsite list shows what is"_s
                      : u"corvctl offsite list shows what is; --server SERVER takes another server's"_s);
}

int drill(Session &session, const Given &given)
{
    int status = kDone;
    if (const std::optional<int> end = notHere(session, u"drill"_s))
        return *end;
    const std::optional<Repository> repository = openedPlace(session, &status);
    if (!repository)
        return status;
    const InterruptGuard guard;
    QString problem;
    const Fd lock = lockOffsite(&problem);
    if (!lock)
        return fail(kRefused, problem);
    const QList<Snapshot> all = readSnapshots(*repository, &problem);
    if (!problem.isEmpty())
        return refuse(session, problem);
    OffsiteState state = readOffsite();
    const QString server = given.has("--server") ? given.text("--server") : QSysInfo::machineHostName();
    const QString account = given.has("ACCOUNT") ? given.text("ACCOUNT") : nextAccount(all, server, state.drilled);
    const QList<SavedHome> there = savedOf(all, account, server);
    const std::optional<SavedHome> saved = newestOf(there, {});
    if (!saved)
        return refuseNothing(session, given, account, server);
    if (const QString newer = passedOver(there, {}, *saved); !newer.isEmpty())
        note(newer);

    const QString former = clearFormer(session);
    const QString name = freeName();
    const Drill one = {session, account, name, domainOfDrill(name)};
    problem = work(one, *repository, *saved);
    const int signal = interrupted() ? interruptedStatus() : kDone;
    forgetInterrupt(); // what was made is to be taken away all the same
    const QString left = clearAway(one);
    problem = hosting::joined({former, problem, left});
    state.drilled = account;
    state.drilledAt = QDateTime::currentSecsSinceEpoch();
    state.drillProblem = problem;
    problem = hosting::joined({problem, keepOffsite(state)});
    if (signal != kDone)
        return fail(signal, problem);
    if (!problem.isEmpty())
        return refuse(session, u"the drill with %1 failed: %2"_s.arg(account, problem));
    if (session.options.json)
        print("{\"ok\":true}\n");
    say(one, u"%1 came back from what is off-site, and was taken away again"_s.arg(account));
    return kDone;
}

} // namespace

Command offsiteDrillCommand()
{
    return {"drill",
            "Fetch an account, restore it under another name, fetch its page, and take it away again",
            {{"ACCOUNT", "the account; the one whose turn it is without it", Kind::Optional, Names::Account},
             {"--server", "the server whose account it was, where that is not this one", Kind::Value}},
            drill};
}

} // namespace corv::ctl
