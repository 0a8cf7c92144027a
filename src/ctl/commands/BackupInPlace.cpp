#include "common/Account.h"
#include "common/BackupConfig.h"
#include "common/BackupFolders.h"
#include "common/Environment.h"
#include "common/Json.h"
#include "common/Paths.h"
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
QString readBackup(const QString &destination, const QString &account, const QString &backup, Placing *placing)
{
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
    // The account chose the names: none of them is to be an option of root's command.
    for (const QString &path : shownPaths(done.replaced))
        words.append(shellWord(path.startsWith(u'-') ? u"./"_s + path : path));
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

} // namespace

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
    if (!hosting::validUsername(account) || !hosting::isOurs(account))
        return refuseNoAccount(session, account);

    cleanEnvironment();
    Placing placing;
    placing.home = QFile::encodeName(hosting::homePath(account));
    placing.aside = asideName(hosting::homePath(account));
    placing.paths = *paths;
    if (backup.startsWith(kReplaced) && isOfARestore(backup.toUtf8())) {
        placing.source = backup.toLatin1();
        return placeReplaced(session, account, placing);
    }
    const QString destination =
        backup::load(QSettings(settingsPath(session.options), QSettings::IniFormat)).destination;
    if (!backup::isBackupName(backup) || !QFile::exists(u"%1/%2"_s.arg(destination, backup)))
        return refuseNoBackup(session, backup, ask(session, u"backup.status"_s).reply);
    if (const QString problem = readBackup(destination, account, backup, &placing); !problem.isEmpty())
        return refuse(session, problem, QString(kListBackups));

    const Answer answer = ask(session, u"backup.restore"_s, args);
    if (!answer.ok())
        return *settled(session, answer);
    placing.source = QByteArray(kRestored.data(), kRestored.size()) + backup.toLatin1();
    placing.isUnpacked = true;
    return place(session, account, placing);
}

} // namespace corv::ctl
