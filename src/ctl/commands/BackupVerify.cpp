#include "common/BackupConfig.h"
#include "common/BackupFolders.h"
#include "common/BackupList.h"
#include "common/Environment.h"
#include "common/Fd.h"
#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/Turn.h"
#include "ctl/commands/Backup.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"
#include "ctl/verify/Proof.h"
#include "ctl/verify/Verify.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QSettings>

#include <algorithm>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

const auto kNewest = u"newest"_s;
// Of a corvctl that is older and does not say which of the two.
const auto kNotDueThere = u"the newest backup there was found whole already, or there is none"_s;
const auto kLock = u"/run/corvane/verify.lock"_s;
// As long as the units give it.
constexpr int kRemoteSeconds = 86'400;

// The names of the finished backups, newest first.
QStringList backupNames(const QString &destination)
{
    QStringList names;
    for (const backup::Folder &folder : backup::foldersIn(destination)) {
        const QString name = QFile::decodeName(folder.name);
        if (backup::isBackupName(name))
            names.append(name);
    }
    std::sort(names.begin(), names.end(), std::greater<>());
    return names;
}

Cell outcomeOf(const FileVerdict &one)
{
    if (!one.fault.isEmpty())
        return text(one.fault, Colour::Bad);
    if (!one.note.isEmpty())
        return text(u"whole; not restored: "_s + one.note, Colour::Warning);
    if (one.proved != 0)
        return text(u"whole, restored: %1 rows in %2 tables"_s.arg(one.rows).arg(one.tables), Colour::Good);
    return text(u"whole"_s, Colour::Good);
}

// What there is to say of each file that is not simply whole, and a sentence on all of them.
int show(const Session &session, const Verdict &verdict)
{
    const QStringList faults = faultsIn(verdict);
    const int status = faults.isEmpty() ? kDone : kRefused;
    if (session.options.json) {
        QJsonObject object = objectOf(verdict);
        object.insert(u"ok"_s, faults.isEmpty());
        const QByteArray line = compactJson(object);
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return status;
    }
    QList<Row> rows;
    qsizetype proved = 0;
    for (const FileVerdict &one : verdict.files) {
        proved += one.proved != 0 ? 1 : 0;
        if (session.options.plain || !one.fault.isEmpty() || !one.note.isEmpty())
            rows.append({text(one.file), bytes(one.bytes), outcomeOf(one)});
    }
    if (!rows.isEmpty())
        printTable(session, {u"FILE"_s, u"SIZE"_s, u"OUTCOME"_s}, rows);
    const QString name = escaped(verdict.backup);
    if (!faults.isEmpty()) {
        for (const QString &fault : faults)
            note(fault);
        return fail(status,
                    u"the backup %1 cannot be relied on: %2 of its files are not whole"_s.arg(name).arg(faults.size()),
                    u"corvctl backup start --wait makes another one"_s);
    }
    if (!session.options.plain)
        printLine(u"the backup %1 is whole: %2 files read%3"_s.arg(
            name, QString::number(verdict.files.size()),
            proved > 0 ? u", %1 dumps restored for a proof"_s.arg(proved) : QString()));
    return status;
}

// Nothing is due, which is no fault: what is wrong with the backups themselves is told where they are made.
int showNothingDue(const Session &session, const QString &why)
{
    if (session.options.json) {
        const QByteArray line = compactJson({{u"ok"_s, true}, {u"files"_s, QJsonArray()}, {u"why"_s, why}});
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
    } else if (!session.options.plain) {
        printLine(u"nothing is due: "_s + escaped(why));
    }
    return kDone;
}

int verifyThere(const Session &session, const Given &given)
{
    QStringList command = {u"corvctl"_s, u"--json"_s, u"backup"_s, u"verify"_s};
    if (given.has("BACKUP"))
        command.append(given.text("BACKUP"));
    for (const char *flag : {"--deep", "--due"}) {
        if (given.has(flag))
            command.append(QString::fromLatin1(flag));
    }
    const Distant distant = runThere(session.options, command, kRemoteSeconds);
    const QJsonObject object = parseObject(distant.output);
    if (object.contains("files"_L1) && !object.contains("backup"_L1))
        return showNothingDue(session, object.value("why"_L1).toString(kNotDueThere));
    if (object.contains("files"_L1))
        return show(session, verdictIn(object));
    return fail(distant.problem.isEmpty() ? kNoConnection : distant.status,
                distant.problem.isEmpty() ? u"what answers there is no corvctl of this kind"_s : distant.problem);
}

int verify(Session &session, const Given &given)
{
    const QString asked = given.has("BACKUP") ? given.text("BACKUP") : kNewest;
    if (asked != kNewest && !backup::isBackupName(asked))
        return fail(kWrongUsage, u"'%1' is no name of a backup"_s.arg(asked));
    if (session.options.printOnly)
        return fail(kWrongUsage, u"nothing is asked of the agent for this"_s);
    if (!session.options.hosts.empty())
        return verifyThere(session, given);
    if (::geteuid() != 0)
        return fail(kNoConnection, u"backups are readable to root alone"_s, u"run it as root"_s);

    cleanEnvironment();
    const QString destination =
        backup::load(QSettings(settingsPath(session.options), QSettings::IniFormat)).destination;
    const QStringList names = backupNames(destination);
    if (names.isEmpty() && given.has("--due"))
        return showNothingDue(session, u"there is no backup in %1"_s.arg(destination));
    if (names.isEmpty())
        return refuse(session, u"there is no backup in %1"_s.arg(destination),
                      u"corvctl backup start --wait makes one"_s);
    const QString name = asked == kNewest ? names.first() : asked;
    if (!names.contains(name))
        return refuseNoBackup(session, name, names);
    if (given.has("--due") && !given.has("--deep")) {
        const std::optional<Verdict> known = readVerdict(destination, name);
        if (known && known->checked != 0 && faultsIn(*known).isEmpty())
            return showNothingDue(session, u"the backup %1 was found whole already"_s.arg(name));
    }

    // Its signals end what it does with a word, and with nothing left behind.
    const InterruptGuard guard;
    QString problem;
    // There is one name for the database of a proof.
    const Fd turn = takeTurn(kLock, u"another verification"_s, &problem);
    if (!turn)
        return problem.isEmpty() ? fail(interruptedStatus(), u"interrupted; nothing was looked at"_s)
                                 : refuse(session, problem);
    clearVerdicts(destination);
    (void)clearProof(); // of one that was killed; the next proof says why that cannot be done
    Progress progress(session.terminal, {}, -1);
    Search search = {destination, name, given.has("--deep"), given.has("--due"), QDateTime::currentSecsSinceEpoch(),
                     {},          {}};
    search.progress = [&progress](const QString &file, qsizetype done, qsizetype all) {
        progress.rename(escaped(u"%1 of %2: %3"_s.arg(QString::number(done + 1), QString::number(all), file)));
    };
    const Verdict verdict = verifyBackup(search, &problem);
    progress.clear();
    if (interrupted())
        return fail(interruptedStatus(), u"interrupted; what was found out by then is kept"_s);
    if (!problem.isEmpty())
        return fail(kRefused, problem);
    return show(session, verdict);
}

} // namespace

Command verifyCommand()
{
    return {"verify",
            "Find out whether a backup can be restored: all of it is read, nothing is changed",
            {{"BACKUP", "its name in corvctl backup list, or newest (the one that is meant without it)", Kind::Optional,
              Names::Backup},
             {"--deep", "restore each dump into a database of its own, count its rows, and drop it again", Kind::Flag},
             {"--due", "only where it was not read yet; with --deep: only the dumps whose turn it is this week",
              Kind::Flag}},
            verify};
}

} // namespace corv::ctl
