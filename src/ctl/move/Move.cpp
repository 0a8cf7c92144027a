#include "ctl/move/Move.h"

#include "common/Account.h"
#include "common/AskedDomain.h"
#include "ctl/Interrupt.h"
#include "ctl/RestoreJournal.h"
#include "ctl/Session.h"
#include "ctl/Turn.h"
#include "ctl/move/Back.h"
#include "ctl/move/Dump.h"
#include "ctl/move/GoOn.h"
#include "ctl/move/HttpsAlong.h"
#include "ctl/move/Listing.h"
#include "ctl/move/Place.h"
#include "ctl/move/Pull.h"
#include "ctl/move/Room.h"
#include "ctl/restore/Restore.h"

#include <QDateTime>
#include <QElapsedTimer>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kLongestMs = 12 * 3'600'000;

QString nothingKept()
{
    return u"nothing can be kept in %1"_s.arg(kMoves);
}

// It is here, as it was when it left.
QString reclaim(Record *record)
{
    if (uidOf(record->account) == 0 || !isMade(*record))
        return u"the user %1 that left is not here any more"_s.arg(record->account);
    endAttempt(record->account);
    // Kept first: that it has left may be forgotten once the record tells of its way back.
    return keepDone(record, kCreated) && forgetLeft(record->account) ? QString() : nothingKept();
}

QString create(Task *task)
{
    Record &record = task->record;
    if (record.isBack)
        return reclaim(&record);
    // The agent may still be at the creation that was asked for then: it answers behind that.
    if (record.begun != 0)
        (void)ask(task->session, u"ping"_s);
    if (record.begun != 0 && uidOf(record.account) != 0) {
        if (!isMade(record))
            return u"there is a user %1 here that this move has not made"_s.arg(record.account);
        endAttempt(record.account);
        record.uid = uidOf(record.account);
        record.domain = hosting::domainOf(record.account);
        return keepDone(&record, kCreated) ? QString() : nothingKept();
    }
    record.uid = 0;
    record.done.clear();
    record.begun = QDateTime::currentSecsSinceEpoch();
    record.domain = task->state.domain;
    // One of that name may have left this server once.
    if (!forgetLeft(record.account) || !keepRecord(record))
        return nothingKept();
    task->say(u"making the account here"_s);
    const Answer answer = ask(task->session, u"hosting.create"_s,
                              {{u"username"_s, record.account}, {u"domain"_s, hosting::askedDomain(record.domain)}});
    if (!answer.ok()) {
        // What the agent refuses it takes back.
        if (answer.fate == Answer::Fate::Replied)
            removeRecord(record.account);
        return problemOf(answer);
    }
    record.uid = uidOf(record.account);
    return keepDone(&record, kCreated) ? QString() : nothingKept();
}

QString pull(Task *task)
{
    task->say(u"bringing the files, while the site is served there"_s);
    const QString &account = task->record.account;
    const Room room(kHomesFolder, task->homeBytes, task->homeEntries);
    Pull files;
    Gate list;
    QString problem = files.open(task->record.host, account, task->record.isBack);
    if (problem.isEmpty())
        problem = files.start();
    QString unread; // told of at the switch
    if (problem.isEmpty())
        problem = files.wait(
            kLongestMs, room, [] { return !interrupted(); }, &unread);
    if (problem.isEmpty())
        problem = list.open(task->record.host, listingCommand(account));
    if (problem.isEmpty())
        problem = list.pass();
    if (!problem.isEmpty())
        return problem;
    if (const auto listing = takeListing(&list))
        prepareCome(account, *listing);
    return {};
}

QString rehearse(Task *task)
{
    const QString &account = task->record.account;
    task->say(u"bringing the database, and loading it here"_s);
    QElapsedTimer clock;
    clock.start();
    Remote dump;
    QString problem = dump.start(task->record.host, dumpCommand(account));
    if (problem.isEmpty())
        problem = takeDump(&dump, account);
    const qint64 dumped = clock.elapsed();
    if (problem.isEmpty())
        problem = checkDump(account);
    // A switch that was not decided may have left the role without a login. Who comes back is not to be resumed yet:
    // his jobs would begin here, while they run there.
    if (!task->record.isBack)
        (void)ask(task->session, u"hosting.resume"_s, {{u"username"_s, account}});
    else if (problem.isEmpty())
        problem = letRoleIn(account, true);
    // The agent takes one dump at a time from whoever lends it.
    QString noTurn;
    const Fd turn = takeTurn(kRestoreLock, u"Another restore or move"_s, &noTurn);
    if (!turn && problem.isEmpty())
        problem = noTurn.isEmpty() ? u"it was interrupted"_s : noTurn;
    clock.restart();
    if (problem.isEmpty())
        problem = load(task);
    if (task->record.isBack)
        (void)letRoleIn(account, false);
    dropDump(account);
    task->record.rehearsed = dumped + clock.elapsed();
    task->done.rehearsed = task->record.rehearsed;
    return problem;
}

// Before the switch: whoever comes to port 443 behind it finds the certificate that he knows, and nobody waits for it.
QString secure(Task *task)
{
    if (!isHttpsOnHere() || !hosting::isStoredDomain(task->state.domain))
        return {};
    task->say(u"bringing its certificate"_s);
    QString told;
    const QString problem = bringHttps(task->record.host, task->record.account, task->state.domain, &told);
    // The site is worth more than its certificate, which can be ordered anew.
    if (!problem.isEmpty())
        task->done.lost.append(problem);
    if (!told.isEmpty())
        task->say(told);
    return {};
}

} // namespace

QString load(Task *task)
{
    QStringList uncounted;
    const QString problem = loadDump(task->session, task->config, task->record.account, &task->done.tables, &uncounted);
    if (!uncounted.isEmpty())
        task->done.lost.append(u"the rows of %1, which it may not count itself"_s.arg(uncounted.join(", "_L1)));
    // The database comes more than once.
    task->done.lost.removeDuplicates();
    return problem;
}

QString prepare(Task *task)
{
    using Step = QString (*)(Task *);
    for (const Step step : {Step(create), Step(secure), Step(pull), Step(rehearse)}) {
        const QString problem = interrupted() ? u"it was interrupted"_s : step(task);
        if (!problem.isEmpty())
            return interrupted() ? u"it was interrupted"_s : problem;
    }
    return keepDone(&task->record, kRehearsed) ? QString() : nothingKept();
}

Moved moveAccount(Task *task, bool isRehearsal)
{
    const InterruptGuard guard;
    const auto failed = [task](const QString &problem) {
        task->done.problem = problem;
        task->done.status = interrupted() ? interruptedStatus() : kRefused;
        task->done.isDecided = task->record.done.contains(kDecided);
        return task->done;
    };
    if (!task->record.done.contains(kDecided)) {
        if (const QString problem = prepare(task); !problem.isEmpty())
            return failed(problem);
        if (isRehearsal)
            return task->done;
        const QString problem = switchOver(task);
        // What is left open is gone on with.
        if (!problem.isEmpty() && task->done.isBack && !task->record.done.contains(kDecided))
            endWatch(task->record.account);
        if (!problem.isEmpty())
            return failed(problem);
    }
    task->done.isDecided = true;
    finish(task);
    endWatch(task->record.account);
    const bool isWell = task->done.seen && task->done.seen->isWell;
    task->done.status = isWell && task->done.lost.isEmpty() ? kDone : kRefused;
    return task->done;
}

} // namespace corv::ctl::moving
