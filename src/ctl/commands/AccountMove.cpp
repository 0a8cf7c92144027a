#include "common/Account.h"
#include "common/BackupConfig.h"
#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Input.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/Turn.h"
#include "ctl/commands/Account.h"
#include "ctl/commands/MoveText.h"
#include "ctl/commands/RestoreText.h"
#include "ctl/move/Back.h"
#include "ctl/move/Forward.h"
#include "ctl/move/Move.h"
#include "ctl/move/Plan.h"
#include "ctl/remote/Remote.h"
#include "ctl/restore/Restore.h"
#include "ctl/screen/Escape.h"

#include <QSettings>

#include <array>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

using moving::Check;

// What goes on with an account that is here already, half made, has its name, and files that need no more room.
QList<Check> checksFor(const moving::There &there, const moving::Record &record)
{
    const moving::Here here = moving::lookHere(there);
    if (record.isBack)
        return checksOfBack(there, here, record);
    QList<Check> checks = checksOf(there, here);
    if (record.begun == 0 || uidOf(record.account) == 0 || !isMade(record))
        return checks;
    checks.removeIf([](const Check &check) { return check.about == "Account"_L1 || check.about == "Room"_L1; });
    // It may have been given another one there since it was made here.
    if (const QString problem = moving::otherDomain(record.account, there.state.domain); !problem.isEmpty())
        checks.prepend({u"Domain"_s, problem, Check::Level::InTheWay});
    return checks;
}

// Asks for the account and holds both servers against each other. Gives the status to end with where it cannot be
// moved.
std::optional<int> plan(const Session &session, const Given &given, moving::Task *task)
{
    const moving::Record &record = task->record;
    QString problem;
    int status = kDone;
    const std::optional<moving::There> there = moving::lookThere(session.options, record, &problem, &status);
    if (!there)
        return status == kRefused ? refuse(session, problem) : fail(status, problem);
    task->state = there->state;
    task->homeBytes = there->homeBytes;
    task->homeEntries = there->homeEntries;
    const QList<Check> checks = checksFor(*there, record);
    const bool isDry = given.has("--dry-run");
    if (const std::optional<int> end = tellPlan(session, record, *there, checks, isDry))
        return end;
    return isDry ? std::optional(kDone) : std::nullopt;
}

// Whether the account comes, or comes back, is the record's matter where there is one. Gives the status to end with
// where it cannot come back, or is asked for the other way.
std::optional<int> beginBack(const Session &session, const Given &given, moving::Record *record)
{
    const bool isBack = given.has("--back");
    if (isBack && record->begun == 0) {
        QString problem;
        *record = moving::recordOfBack(record->account, given.text("HOST"), &problem);
        return problem.isEmpty() ? std::nullopt : std::optional(refuse(session, problem));
    }
    if (isBack == record->isBack)
        return {};
    if (record->isBack)
        return refuse(session, u"%1 left this server and is coming back from %2"_s.arg(record->account, record->host),
                      goOnWith(*record) + u" goes on with it"_s);
    return refuse(session, u"%1 came here from %2, which takes it back"_s.arg(record->account, record->host),
                  u"give this command there, with this server as HOST"_s);
}

// What is to be done for what a record tells of, or for none. Gives the status to end with where nothing is.
std::optional<int> begin(const Session &session, const Given &given, moving::Task *task)
{
    moving::Record &record = task->record;
    // It has been here, and is gone since; whoever has its name now is somebody else.
    if (record.done.contains(moving::kDecided) &&
        (uidOf(record.account) == 0 || !isMade(record) || moving::hasLeft(record.account))) {
        moving::removeRecord(record.account);
        record = {record.account, given.text("HOST"), {}, 0, 0, 0, {}};
    }
    if (const std::optional<int> end = beginBack(session, given, &record))
        return end;
    if (record.host != given.text("HOST")) {
        return refuse(session, u"a move of %1 from %2 is under way here"_s.arg(record.account, record.host),
                      goOnWith(record) + u" goes on with it"_s);
    }
    if (given.has("--dry-run"))
        return plan(session, given, task);
    if (const QString problem = endSwitch(task); !problem.isEmpty())
        return fail(kNoConnection, u"which of the two servers has %1 cannot be told: %2"_s.arg(record.account, problem),
                    u"the same command asks again"_s);
    if (record.done.contains(moving::kDecided))
        return {};
    if (const std::optional<int> end = plan(session, given, task))
        return end;
    if (given.has("--rehearse"))
        return {};
    const std::optional<QString> typed = confirmation(
        session, u"This takes %1 off-line there for some seconds, and on-line here. Type %1 to go on:"_s.arg(
                     escaped(record.account)));
    if (!typed)
        return kWrongUsage;
    if (*typed != record.account)
        return fail(kWrongUsage, u"that is not the account's name, so nothing was moved"_s);
    return {};
}

// The end of what is left of a move that is done: the old address leads here no more.
int endMove(const Session &session, const moving::Record &record)
{
    if (!record.done.contains(moving::kDecided))
        return refuse(session, u"%1 has not moved here from %2"_s.arg(record.account, record.host));
    const QString problem = moving::endOldAddress(session.options, record.host, record.account);
    if (!problem.isEmpty())
        return refuse(session, problem, u"the same command tries again"_s);
    moving::removeRecord(record.account);
    const QString sentence = u"%1 leads nobody to %2 any more"_s.arg(record.host, record.account);
    if (session.options.json)
        print(compactJson({{u"ok"_s, true}, {u"account"_s, record.account}, {u"host"_s, record.host}}) + '\n');
    else
        printLine(escaped(sentence));
    return kDone;
}

// ssh may need the agent of the administrator's keys, and a move has to know whether it is a service of its own; all
// else of the environment stays away from programs that run as accounts.
void bareButForSsh()
{
    std::array<std::pair<const char *, QByteArray>, 2> kept = {{{"SSH_AUTH_SOCK", {}}, {"SYSTEMD_EXEC_PID", {}}}};
    for (auto &[name, value] : kept)
        value = qgetenv(name);
    bareEnvironment();
    for (const auto &[name, value] : kept) {
        if (!value.isEmpty())
            qputenv(name, value);
    }
}

} // namespace

int moveOfAccount(Session &session, const Given &given)
{
    if (given.has("--all") && (given.has("--end") || given.has("--back")))
        return fail(kWrongUsage, u"--end and --back are said of one account at a time"_s);
    if (given.has("--all"))
        return moveOfAllAccounts(session, given);
    if (!given.has("HOST"))
        return fail(kWrongUsage, u"HOST is required: the server that it is to come from"_s);
    const QString account = given.text("ACCOUNT");
    const QString host = given.text("HOST");
    if (const std::optional<int> end = refuseElsewhere(session, u"account move"_s))
        return *end;
    // It is put into the words of a shell over there.
    if (!hosting::validUsername(account))
        return fail(kWrongUsage, u"%1 is no name of an account"_s.arg(account));
    if (const QString problem = hostProblem(host); !problem.isEmpty())
        return fail(kWrongUsage, problem);
    if (given.has("--back") && given.has("--end"))
        return fail(kWrongUsage, u"--back brings it here, and --end is of one that is here"_s);
    if (given.has("--dry-run") + given.has("--rehearse") + given.has("--end") > 1)
        return fail(kWrongUsage, u"--dry-run, --rehearse and --end are different things: choose one"_s);
    bareButForSsh();
    QString problem;
    const bool isDry = given.has("--dry-run");
    const Fd turn = isDry ? Fd() : takeTurn(moving::lockOf(account), u"Another move of %1"_s.arg(account), &problem);
    if (!turn && !isDry)
        return refuse(session, problem);

    const backup::Config config = backup::load(QSettings(settingsPath(session.options), QSettings::IniFormat));
    moving::Record fresh;
    fresh.account = account;
    fresh.host = host;
    moving::Task task = {session, config, sayer(session, account), moving::readRecord(account).value_or(fresh), {},
                         {},      {}};
    if (given.has("--end"))
        return endMove(session, task.record);
    if (const std::optional<int> end = begin(session, given, &task))
        return *end;
    const moving::Moved done = moveAccount(&task, given.has("--rehearse"));
    return tellMoved(session, task.record, done);
}

} // namespace corv::ctl
