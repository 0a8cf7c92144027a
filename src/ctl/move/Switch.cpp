#include "ctl/Interrupt.h"
#include "ctl/RestoreJournal.h"
#include "ctl/Session.h"
#include "ctl/Turn.h"
#include "ctl/move/Back.h"
#include "ctl/move/Dump.h"
#include "ctl/move/GoOn.h"
#include "ctl/move/Listing.h"
#include "ctl/move/Move.h"
#include "ctl/move/Place.h"
#include "ctl/move/Pull.h"
#include "ctl/move/Verdict.h"
#include "ctl/restore/Apply.h"
#include "ctl/restore/Restore.h"

#include "common/AtomicFile.h"

#include <QDateTime>
#include <QElapsedTimer>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr mode_t kFileMode = 0600;
// The timer over there, for accounts whose database needs no more; for others so many times what the rehearsal took.
constexpr qint64 kTimerSeconds = 120;
constexpr qint64 kRehearsals = 4;
constexpr qint64 kMsInSecond = 1000;

int timerSeconds(const Record &record)
{
    return static_cast<int>(std::max(kTimerSeconds, kRehearsals * record.rehearsed / kMsInSecond));
}

// The connections that the switch needs, made while the account is still served.
struct Ways
{
    Shell shell;
    Pull files;
    Gate list;
    Gate dump;
    Gate lateDump;        // for a database that was written to all the same
    bool isAhead = false; // whether the database has come before the account went off-line
    qint64 written = -1;
};

QString openWays(Ways *ways, const Record &record)
{
    QString problem = ways->shell.open(record.host);
    if (problem.isEmpty())
        problem = ways->files.open(record.host, record.account, record.isBack);
    if (problem.isEmpty())
        problem = ways->list.open(record.host, listingCommand(record.account));
    if (problem.isEmpty())
        problem = ways->dump.open(record.host, dumpCommand(record.account));
    return problem.isEmpty() ? ways->lateDump.open(record.host, dumpCommand(record.account)) : problem;
}

void noteTime(Task *task, const QString &part)
{
    task->done.took.append({part, task->clock.restart()});
}

// Once more, since the account was served until now; and kept, since afterwards it would be that of a suspended one.
QString takeState(Task *task, Shell *shell)
{
    QString problem;
    const std::optional<AccountState> state = stateThere(shell, task->record.account, &problem);
    if (!state)
        return problem;
    if (problem = otherDomain(task->record.account, state->domain); !problem.isEmpty())
        return problem;
    task->state = *state;
    return replaceFile(moveFile(task->record.account, u"state"_s), stateLine(*state), kFileMode)
               ? QString()
               : u"nothing can be kept in %1"_s.arg(kMoves);
}

QString takeDatabase(Task *task, Gate *dump)
{
    const QString &account = task->record.account;
    if (const QString problem = dump->pass(); !problem.isEmpty())
        return problem;
    if (const QString problem = takeDump(&dump->remote(), account); !problem.isEmpty())
        return problem;
    noteTime(task, u"dump"_s);
    if (const QString problem = task->record.isBack ? letRoleIn(account, true) : QString(); !problem.isEmpty())
        return problem;
    if (const QString problem = load(task); !problem.isEmpty())
        return problem;
    noteTime(task, u"load"_s);
    if (applyRoleAtOnce(task->state, account, SaidBy::AnotherServer))
        return {};
    bool isLost = false;
    const QStringList lost = applyRole(task->state, account, SaidBy::AnotherServer, &isLost);
    // What comes twice is told once.
    task->done.lost += lost;
    task->done.lost.removeDuplicates();
    return isLost ? lost.join("; "_L1) : QString();
}

bool isReadOnly(const AccountState &state)
{
    return std::any_of(state.settings.cbegin(), state.settings.cend(), [](const KeptSetting &setting) {
        return setting.scope == KeptSetting::Scope::Database && setting.name == "default_transaction_read_only"_L1 &&
               setting.value == "on"_L1;
    });
}

// The database takes the longest, so it comes while the site can still be read.
QString bringAhead(Task *task, Ways *ways)
{
    const QString &account = task->record.account;
    if (const QString problem = freeze(&ways->shell, account, isReadOnly(task->state), &ways->written);
        !problem.isEmpty())
        return problem;
    ways->isAhead = true;
    return takeDatabase(task, &ways->dump);
}

// What is suspended can be given no jobs of at any more, and must not be seen while its files come.
QString suspendHere(Task *task)
{
    if (!task->state.isSuspended)
        return {};
    const QString &account = task->record.account;
    task->done.lost += applyLogin(task->state, account);
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    task->done.lost += applyJobs(task->state, account, now);
    task->done.lost += lateJobs(task->state, now);
    task->done.lost += applyLinger(task->state, account);
    return problemOf(ask(task->session, u"hosting.suspend"_s, {{u"username"_s, account}}));
}

// All that comes between the account's suspension there and the decision.
QString bringOver(Task *task, Ways *ways)
{
    const Room room(kHomesFolder, task->homeBytes, task->homeEntries);
    // What neither needs the other for goes on at the same time.
    if (const QString problem = ways->files.start(); !problem.isEmpty())
        return problem;
    if (const QString problem = ways->list.pass(); !problem.isEmpty())
        return problem;
    if (!ways->isAhead || !isAsFrozen(&ways->shell, task->record.account, ways->written)) {
        Gate *const dump = ways->isAhead ? &ways->lateDump : &ways->dump;
        if (const QString problem = takeDatabase(task, dump); !problem.isEmpty())
            return problem;
    }
    noteTime(task, u"database"_s);
    QString unread;
    const int longest = timerSeconds(task->record) * static_cast<int>(kMsInSecond);
    if (const QString problem = ways->files.wait(
            longest, room, [] { return !interrupted(); }, &unread);
        !problem.isEmpty())
        return problem;
    if (!unread.isEmpty())
        task->done.lost.append(u"files that its user may not read there: "_s + unread);
    const std::optional<QList<ArchiveEntry>> listing = takeListing(&ways->list);
    if (!listing)
        return u"the home over there could not be listed"_s;
    task->done.entries = listing->size();
    noteTime(task, u"files"_s);
    if (const QString problem = suspendHere(task); !problem.isEmpty())
        return problem;
    if (!keepDone(&task->record, kPlacing))
        return u"nothing can be kept in %1"_s.arg(kMoves);
    if (const QString problem = putComeInPlace(task->record.account, *listing); !problem.isEmpty())
        return problem;
    noteTime(task, u"place"_s);
    // Nobody sees it yet: its names are led on from here until it is this server's.
    if (!task->record.isBack || task->state.isSuspended)
        return {};
    return problemOf(ask(task->session, u"hosting.resume"_s, {{u"username"_s, task->record.account}}));
}

// The connection may be what has failed: another one is made.
QString goBack(Task *task, bool *isOurs)
{
    Shell shell;
    QString problem = shell.open(task->record.host);
    if (problem.isEmpty())
        problem = giveUp(&shell, task->record.account, task->record.word, !task->state.isSuspended, isOurs);
    if (problem.isEmpty() && *isOurs && !keepDone(&task->record, kDecided))
        problem = u"nothing can be kept in %1"_s.arg(kMoves);
    if (!problem.isEmpty() || *isOurs)
        return problem;
    if (task->record.isBack)
        problem = problemOf(ask(task->session, u"hosting.suspend"_s, {{u"username"_s, task->record.account}}));
    if (problem.isEmpty() && task->record.done.contains(kPlacing) && uidOf(task->record.account) != 0)
        problem = takeBack(task->record.account);
    if (problem.isEmpty())
        (void)keepUndone(&task->record, {kPlacing, kSwitching});
    return problem;
}

} // namespace

QString endSwitch(Task *task)
{
    if (!task->record.done.contains(kSwitching) || task->record.done.contains(kDecided))
        return {};
    if (const auto kept = readState(moveFile(task->record.account, u"state"_s), task->record.account))
        task->state = *kept;
    task->say(
        u"an earlier attempt was cut off in the switch: asking the old server which of the two has the account"_s);
    bool isOurs = false;
    return goBack(task, &isOurs);
}

QString switchOver(Task *task)
{
    const QString &account = task->record.account;
    QString problem;
    // The agent takes one dump at a time from whoever lends it.
    const Fd turn = takeTurn(kRestoreLock, u"Another restore or move"_s, &problem);
    Ways ways;
    if (turn)
        problem = openWays(&ways, task->record);
    if (problem.isEmpty())
        problem = takeState(task, &ways.shell);
    if (turn && problem.isEmpty())
        problem = forgetEarlier(&ways.shell, account);
    if (!turn || !problem.isEmpty())
        return problem.isEmpty() ? u"it was interrupted"_s : problem;

    const bool wasOnline = !task->state.isSuspended;
    task->done.timer = timerSeconds(task->record);
    if (task->record.word.isEmpty())
        task->record.word = newWord();
    if (!keepDone(&task->record, kSwitching))
        return u"nothing can be kept in %1"_s.arg(kMoves);
    if (wasOnline)
        task->say(u"bringing the database once more, which can only be read there meanwhile"_s);
    else
        task->say(u"it is suspended there, and is brought so"_s);
    beginWatch(task->record);
    problem = beginSwitch(&ways.shell, account, task->record.word, wasOnline, task->done.timer);
    if (problem.isEmpty() && wasOnline)
        problem = interrupted() ? u"it was interrupted"_s : bringAhead(task, &ways);
    if (problem.isEmpty() && wasOnline)
        task->say(u"taking it off-line there; if this ends now, it is back there after %1 s"_s.arg(task->done.timer));
    task->done.took.clear();
    QElapsedTimer clock;
    clock.start();
    task->clock.start();
    if (problem.isEmpty() && wasOnline)
        problem = suspendThere(&ways.shell, account);
    noteTime(task, u"suspension"_s);
    if (problem.isEmpty())
        problem = interrupted() ? u"it was interrupted"_s : bringOver(task, &ways);
    if (problem.isEmpty())
        problem = interrupted() ? u"it was interrupted"_s : decide(&ways.shell, account, task->record.word);
    if (problem.isEmpty()) {
        noteTime(task, u"decision"_s);
        if (wasOnline)
            task->done.offline = clock.elapsed();
        dropDump(account);
        return keepDone(&task->record, kDecided) ? QString() : u"nothing can be kept in %1"_s.arg(kMoves);
    }
    bool isOurs = false;
    const QString worse = goBack(task, &isOurs);
    task->done.isBack = worse.isEmpty();
    dropDump(account);
    if (isOurs)
        return {};
    return interrupted() ? u"it was interrupted"_s : problem;
}

} // namespace corv::ctl::moving
