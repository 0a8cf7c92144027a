#include "common/Account.h"
#include "common/BackupConfig.h"
#include "common/BackupFolders.h"
#include "common/Environment.h"
#include "common/Json.h"
#include "common/Paths.h"
#include "ctl/Input.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/commands/Backup.h"
#include "ctl/doctor/Finding.h"
#include "ctl/home/Archive.h"
#include "ctl/home/Beneath.h"
#include "ctl/home/InPlace.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QSettings>

#include <algorithm>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// The end of what the agent says where an account's database is loaded as its own, and the account may not log in.
constexpr auto kSuspended = "resume the account first"_L1;
// How it begins where a backup holds nothing of the account, or where there is no such backup.
constexpr auto kHasNone = "that backup has no "_L1;

constexpr auto kRestored = "restored-"_L1;
constexpr auto kReplaced = "replaced-"_L1;
constexpr auto kStamp = "yyyy-MM-dd_HHmmss"_L1;

// Whether a name in a home is that of a folder that a restore makes.
bool isOfARestore(const QByteArray &name)
{
    static const QRegularExpression pattern(
        QRegularExpression::anchoredPattern(u"(restored|replaced)-\\d{4}-\\d\\d-\\d\\d_\\d{6}"_s));
    return pattern.match(QString::fromLatin1(name)).hasMatch();
}

// The name of a folder that is not in the home yet, by the time; two restores within a second are told apart.
QByteArray asideName(const QString &home)
{
    QDateTime time = QDateTime::currentDateTime();
    while (exists(home + u'/' + kReplaced + time.toString(QString(kStamp))))
        time = time.addSecs(1);
    return (kReplaced + time.toString(QString(kStamp))).toLatin1();
}

QStringList shownPaths(const QList<QByteArray> &paths)
{
    QStringList all;
    for (const QByteArray &path : paths)
        all.append(QString::fromUtf8(path));
    return all;
}

// Restores once more with the account resumed for that time. What the agent says of the restore is the answer, unless
// it does not come to that.
Answer restoreSuspended(Session &session, const QJsonObject &args)
{
    const QJsonObject account = {{u"username"_s, args.value("username"_L1)}};
    if (const Answer resumed = ask(session, u"hosting.resume"_s, account); !resumed.ok())
        return resumed;
    const Answer answer = ask(session, u"backup.restore"_s, args);
    if (const Answer suspended = ask(session, u"hosting.suspend"_s, account); !suspended.ok())
        note(u"%1 could not be suspended again, and is on-line"_s.arg(account.value("username"_L1).toString()));
    return answer;
}

// Whether there is no such backup at all, where the agent speaks of what it holds. Not so where that cannot be told.
bool isNoBackup(Session &session, const Answer &refused, const QString &backup)
{
    if (!refused.reply.value("error"_L1).toString().startsWith(kHasNone))
        return false;
    const Answer status = ask(session, u"backup.status"_s);
    return status.ok() && backupNamed(status.reply, backup).isEmpty();
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

    const QString backup = given.text("BACKUP");
    const QJsonObject args = {{u"username"_s, name}, {u"backup"_s, backup}, {u"what"_s, what}};
    Answer answer = ask(session, u"backup.restore"_s, args);
    if (given.has("--resume") && answer.reply.value("error"_L1).toString().endsWith(kSuspended))
        answer = restoreSuspended(session, args);
    if (isNoBackup(session, answer, backup))
        return refuse(session, noBackup(backup), QString(kListBackups));
    const QString folder = answer.reply.value("restoredTo"_L1).toString();
    return settledWith(session, answer,
                       what == "files"_L1 ? u"the files are in %1"_s.arg(folder) : u"the database is restored"_s);
}

// The paths that were given, put right, without those below another. Nothing, after a word on standard error, where one
// is no path inside a home.
std::optional<QList<QByteArray>> wantedPaths(const Given &given)
{
    QList<QByteArray> all;
    for (const std::string &word : given.words("PATH")) {
        const QByteArray path = insidePath(QByteArray::fromStdString(word));
        if (path.isEmpty()) {
            (void)fail(kWrongUsage, u"%1 is no path below the home"_s.arg(QString::fromStdString(word)),
                       u"paths begin in the home, as in public_html/index.html"_s);
            return {};
        }
        all.append(path);
    }
    QList<QByteArray> paths;
    for (const QByteArray &path : all) {
        const bool isBelow = std::any_of(all.cbegin(), all.cend(),
                                         [&path](const QByteArray &other) { return path.startsWith(other + '/'); });
        if (!isBelow && !paths.contains(path))
            paths.append(path);
    }
    return paths;
}

// Reads what the archive of the account's home says of the paths, or what is to be put in place where there are none.
// Returns why that cannot be, empty when it can.
QString readBackup(const Options &options, const QString &account, const QString &backup, Placing *placing)
{
    const QSettings settings(settingsPath(options), QSettings::IniFormat);
    const QString destination = backup::load(settings).destination;
    if (!QFile::exists(u"%1/%2"_s.arg(destination, backup)))
        return noBackup(backup);
    const QString archive = homeArchive(destination, backup, account);
    if (archive.isEmpty())
        return u"that backup has no files for "_s + account;

    QString problem;
    placing->entries = readArchive(archive, account, placing->paths, &problem);
    if (!problem.isEmpty())
        return u"the archive in the backup cannot be read: "_s + problem;
    for (const QByteArray &path : placing->paths) {
        const bool isThere = std::any_of(placing->entries.cbegin(), placing->entries.cend(),
                                         [&path](const ArchiveEntry &entry) { return entry.path == path; });
        if (!isThere)
            return u"the backup %1 has no %2 of %3"_s.arg(backup, QString::fromUtf8(path), account);
    }
    if (!placing->paths.isEmpty())
        return {};
    for (const ArchiveEntry &entry : placing->entries) {
        if (!entry.path.contains('/') && !isOfARestore(entry.path))
            placing->paths.append(entry.path);
    }
    return placing->paths.isEmpty() ? u"the backup %1 of %2 is empty"_s.arg(backup, account) : QString();
}

int tell(const Session &session, const QString &account, const Placing &placing, const Placed &done)
{
    const QString aside = QString::fromUtf8(placing.home + '/' + placing.aside);
    if (session.options.json) {
        const QByteArray line = compactJson({{u"ok"_s, true},
                                             {u"placed"_s, QJsonArray::fromStringList(shownPaths(done.placed))},
                                             {u"replaced"_s, QJsonArray::fromStringList(shownPaths(done.replaced))},
                                             {u"replacedTo"_s, done.replaced.isEmpty() ? QString() : aside}});
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return kDone;
    }
    QList<Fact> facts = {{u"In place"_s, text(shownPaths(done.placed).join(", "_L1))}};
    if (!done.replaced.isEmpty())
        facts.append({u"Replaced ones"_s, text(aside)});
    printFacts(session, facts);
    if (done.replaced.isEmpty() || session.options.plain)
        return kDone;

    QStringList words;
    for (const QString &path : shownPaths(done.replaced))
        words.append(shellWord(path));
    const QString folder = QString::fromUtf8(placing.aside);
    // Each in one line, however long, so that it can be copied.
    printLine(u"\nTo have the replaced ones back, or to delete them:"_s);
    printLine(escaped(u"  corvctl backup restore %1 %2 files --in-place %3"_s.arg(account, folder, words.join(u' '))));
    printLine(escaped(u"  corvctl file rm %1 %2"_s.arg(account, folder)));
    return kDone;
}

// Puts what is in a folder of the home in place, and tells of it.
int place(const Session &session, const QString &account, const Placing &placing)
{
    const std::optional<Rights> rights = accountRights(account);
    if (!rights)
        return refuse(session, u"there is no user %1, or no group www-data"_s.arg(account));
    const Placed done = putInPlace(*rights, placing);
    if (done.isRestLeft)
        note(u"%1 could not be removed: corvctl file rm %2 %1"_s.arg(QString::fromUtf8(placing.source), account));
    if (done.problem.isEmpty())
        return tell(session, account, placing, done);

    const QString reached =
        done.placed.isEmpty()
            ? u"nothing was put in place"_s
            : u"only these are in place: "_s + shownPaths(done.placed).join(", "_L1) +
                  (done.replaced.isEmpty() ? QString()
                                           : u"; what was there is in "_s + QString::fromUtf8(placing.aside));
    return refuse(session, u"%1; %2"_s.arg(done.problem, reached),
                  placing.isUnpacked ? u"corvctl file rm %1 %2 deletes the rest of what was unpacked"_s.arg(
                                           account, QString::fromUtf8(placing.source))
                                     : QString());
}

// Puts back what an earlier restore had replaced.
int placeReplaced(const Session &session, const QString &account, const Placing &placing)
{
    if (placing.paths.isEmpty()) {
        return fail(kWrongUsage, u"name what of %1 to put back"_s.arg(QString::fromUtf8(placing.source)),
                    u"corvctl file ls %1 %2 shows what is in it"_s.arg(account, QString::fromUtf8(placing.source)));
    }
    return place(session, account, placing);
}

int restoreInPlace(Session &session, const Given &given)
{
    const QString account = given.text("ACCOUNT");
    const QString backup = given.text("BACKUP");
    if (given.text("files|database") != "files"_L1)
        return fail(kWrongUsage, u"--in-place is for files: a database is restored in place in any case"_s);
    const std::optional<QList<QByteArray>> paths = wantedPaths(given);
    if (!paths)
        return kWrongUsage;
    const QJsonObject args = {{u"username"_s, account}, {u"backup"_s, backup}, {u"what"_s, u"files"_s}};
    if (session.options.printOnly)
        return *settled(session, ask(session, u"backup.restore"_s, args));
    if (!session.options.hosts.empty()) {
        return fail(kWrongUsage, u"what is restored is put in place on the server itself, not from here"_s,
                    u"ssh %1 corvctl backup restore ... --in-place"_s.arg(
                        QString::fromStdString(session.options.hosts.front())));
    }
    if (::geteuid() != 0) {
        return fail(kNoConnection, u"putting files in place takes root, to work with the account's rights"_s,
                    u"run it as root: sudo corvctl backup restore ... --in-place"_s);
    }
    if (!hosting::validUsername(account) || !hosting::isOurs(account)) {
        return refuse(session, u"no Corvane account named '%1'"_s.arg(account),
                      u"corvctl account list shows the accounts"_s);
    }

    cleanEnvironment();
    Placing placing;
    placing.home = QFile::encodeName(hosting::homePath(account));
    placing.aside = asideName(hosting::homePath(account));
    placing.paths = *paths;
    if (backup.startsWith(kReplaced) && isOfARestore(backup.toUtf8())) {
        placing.source = backup.toLatin1();
        return placeReplaced(session, account, placing);
    }
    if (!backup::isBackupName(backup))
        return refuse(session, noBackup(backup), QString(kListBackups));
    if (const QString problem = readBackup(session.options, account, backup, &placing); !problem.isEmpty())
        return refuse(session, problem, QString(kListBackups));

    const Answer answer = ask(session, u"backup.restore"_s, args);
    if (!answer.ok())
        return *settled(session, answer);
    placing.source = QByteArray(kRestored.data(), kRestored.size()) + backup.toLatin1();
    placing.isUnpacked = true;
    return place(session, account, placing);
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
