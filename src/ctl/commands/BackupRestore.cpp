#include "ctl/Input.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/commands/Backup.h"
#include "ctl/screen/Escape.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// The end of what the agent says where an account's database is loaded as its own, and the account may not log in.
constexpr auto kSuspended = "resume the account first"_L1;
// How it begins where a backup holds nothing of the account, or where there is no such backup.
constexpr auto kHasNone = "that backup has no "_L1;

// Restores once more with the account resumed. What the agent says of the restore is the answer, unless it does not
// come to that.
Answer restoreResumed(Session &session, const QJsonObject &args)
{
    const Answer resumed = ask(session, u"hosting.resume"_s, {{u"username"_s, args.value("username"_L1)}});
    return resumed.ok() ? ask(session, u"backup.restore"_s, args) : resumed;
}

// Ends that, however it went: a resumption that failed, or of which nobody knows how it ended, may have opened the
// login, the database or the site all the same.
void suspendAgain(Session &session, const QString &account)
{
    forgetInterrupt(); // or this would not be sent
    if (!ask(session, u"hosting.suspend"_s, {{u"username"_s, account}}).ok())
        note(u"%1 could not be suspended again, and is on-line, or a part of it is: corvctl account suspend %1"_s.arg(
            account));
}

// What backup.status says where there is no such backup at all, and the agent speaks of what it holds. Nothing where
// there is one, or where that cannot be told.
std::optional<QJsonObject> statusWithout(Session &session, const Answer &refused, const QString &backup)
{
    if (!refused.reply.value("error"_L1).toString().startsWith(kHasNone))
        return {};
    const Answer status = ask(session, u"backup.status"_s);
    if (!status.ok() || !backupNamed(status.reply, backup).isEmpty())
        return {};
    return status.reply;
}

int tellOfRestore(Session &session, const Answer &answer, const Given &given)
{
    const QString backup = given.text("BACKUP");
    if (const std::optional<QJsonObject> status = statusWithout(session, answer, backup))
        return refuseNoBackup(session, backup, *status);
    const QString folder = answer.reply.value("restoredTo"_L1).toString();
    return settledWith(session, answer,
                       given.text("files|database") == "files"_L1 ? u"the files are in %1"_s.arg(folder)
                                                                  : u"the database is restored"_s);
}

int restoreBeside(Session &session, const Given &given)
{
    const QString name = given.text("ACCOUNT");
    const QString what = given.text("files|database");
    if (what == "database"_L1) {
        const std::optional<QString> typed = confirmation(
            session,
            u"This replaces the database of %1 by the one in the backup. Type %1 to go on:"_s.arg(escaped(name)));
        if (!typed)
            return kWrongUsage;
        if (*typed != name)
            return fail(kWrongUsage, u"that is not the account's name, so nothing was restored"_s);
    }

    const QJsonObject args = {{u"username"_s, name}, {u"backup"_s, given.text("BACKUP")}, {u"what"_s, what}};
    const Answer answer = ask(session, u"backup.restore"_s, args);
    if (!given.has("--resume") || !answer.reply.value("error"_L1).toString().endsWith(kSuspended))
        return tellOfRestore(session, answer, given);
    const InterruptGuard guard;
    const int status = tellOfRestore(session, restoreResumed(session, args), given);
    suspendAgain(session, name);
    return status;
}

int restore(Session &session, const Given &given)
{
    if (given.has("--in-place"))
        return restoreInPlace(session, given);
    if (given.has("PATH"))
        return fail(kWrongUsage, u"single files and folders are brought back with --in-place"_s);
    return restoreBeside(session, given);
}

} // namespace

Command restoreCommand()
{
    return {"restore",
            "Bring back an account's files, or its database in place of the present one",
            {{"ACCOUNT", "the account's name", Kind::Required, Names::Account},
             {"BACKUP", "its name in corvctl backup list, or a folder replaced-... in the home"},
             {"files|database",
              "what to bring back: files go into a new folder restored-BACKUP; a database asks for the account's name",
              Kind::Required,
              Names::Nothing,
              {"files", "database"}},
             {"PATH", "with --in-place: the files and folders to bring back; all of the home without any", Kind::Words},
             {"--in-place", "put the files in the place of the live ones, which are kept in a folder replaced-...",
              Kind::Flag},
             {"--resume", "resume a suspended account for the time of a database's restore, and suspend it again",
              Kind::Flag}},
            restore};
}

} // namespace corv::ctl
