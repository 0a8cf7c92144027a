#include "common/Account.h"
#include "common/Json.h"
#include "common/Tree.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/commands/Offsite.h"
#include "ctl/offsite/Fetch.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QRegularExpression>
#include <QSet>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr mode_t kFolderMode = 0700;
// Beside the backups, where there is room for an archive; folders in there are no affair of the agent's.
const auto kUsualFolder = u"/var/backups/corvane/fetched"_s;

void removeFolder(const QString &path)
{
    const QFileInfo info(path);
    const Fd parent(::open(QFile::encodeName(info.path()).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (parent)
        (void)removeTree(parent.get(), QFile::encodeName(info.fileName()).constData());
}

// Makes the folder, for root alone; the usual place for it as well.
QString makeFolder(const QString &path)
{
    for (const QString &parent : {u"/var/backups/corvane"_s, kUsualFolder}) {
        if (path.startsWith(parent + u'/'))
            (void)::mkdir(QFile::encodeName(parent).constData(), kFolderMode);
    }
    if (::mkdir(QFile::encodeName(path).constData(), kFolderMode) != 0)
        return u"%1 cannot be made: %2"_s.arg(path, QString::fromLocal8Bit(std::strerror(errno)));
    return {};
}

// What is to be fetched, and what there is to say of the choice.
struct Choice
{
    SavedHome saved;
    QString passedOver;
};

// What is to be fetched; nothing, with the exit status, after a word on standard error.
std::optional<Choice> chosen(const Session &session, const Repository &repository, const Given &given, int *status)
{
    QString problem;
    const QString account = given.text("ACCOUNT");
    const QString date = given.text("DATE");
    const QList<Snapshot> all = readSnapshots(repository, &problem);
    if (!problem.isEmpty()) {
        *status = refuse(session, problem);
        return {};
    }
    const QList<SavedHome> saved = savedOf(all, account, given.text("--server"));
    QSet<QString> servers;
    for (const SavedHome &one : saved)
        servers.insert(one.home.server);
    if (servers.size() > 1) {
        QStringList names = servers.values();
        names.sort();
        *status = refuse(session, u"several servers have an account %1: %2"_s.arg(account, names.join(", "_L1)),
                         u"--server SERVER says which one is meant"_s);
        return {};
    }
    const std::optional<SavedHome> newest = newestOf(saved, date);
    if (!newest) {
        *status = refuse(session,
                         given.has("DATE") ? u"nothing of %1 is there from %2"_s.arg(account, date)
                                           : u"nothing of %1 is there"_s.arg(account),
                         u"corvctl offsite list shows what is"_s);
        return {};
    }
    return Choice{*newest, passedOver(saved, date, *newest)};
}

// Tells what is in the folder. Whoever takes that for the account has to learn what is not, also by the exit status.
int tellFetched(const Session &session, const QString &account, const QString &folder, const Choice &choice,
                const Fetched &fetched)
{
    const bool isWhole = fetched.missing.isEmpty();
    const QString lacking = u"not all of %1 was fetched: %2"_s.arg(account, fetched.missing.join("; "_L1));
    if (session.options.json) {
        QJsonObject told = {{u"ok"_s, isWhole},
                            {u"folder"_s, folder},
                            {u"backup"_s, choice.saved.backup},
                            {u"server"_s, choice.saved.home.server},
                            {u"missing"_s, QJsonArray::fromStringList(fetched.missing)}};
        if (!isWhole)
            told.insert(u"error"_s, lacking);
        if (!choice.passedOver.isEmpty())
            told.insert(u"passedOver"_s, choice.passedOver);
        const QByteArray line = compactJson(told);
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
    } else {
        if (!choice.passedOver.isEmpty())
            note(choice.passedOver);
        printFacts(session, {{u"Folder"_s, whole(folder)},
                             {u"Backup"_s, text(choice.saved.backup)},
                             {u"Server"_s, text(choice.saved.home.server)},
                             {u"Home"_s, bytes(fetched.bytes)}});
    }
    if (!isWhole) {
        return fail(kRefused, lacking,
                    u"what was fetched lies in %1; corvctl offsite list %2 shows other backups"_s.arg(folder, account));
    }
    if (!session.options.plain && !session.options.json)
        printLine(u"\nIt was read through and is whole. To have the account back:\n"_s +
                  escaped(u"  corvctl account restore %1 --from %2"_s.arg(account, folder)));
    return kDone;
}

int fetch(Session &session, const Given &given)
{
    int status = kDone;
    if (const std::optional<int> end = notHere(session, u"fetch"_s))
        return *end;
    const QString account = given.text("ACCOUNT");
    static const QRegularExpression date(QRegularExpression::anchoredPattern(uR"(\d{4}-\d{2}-\d{2}(_\d{6})?)"_s));
    if (!hosting::validUsername(account))
        return fail(kWrongUsage, u"'%1' is no name of an account"_s.arg(account));
    if (given.has("DATE") && !date.match(given.text("DATE")).hasMatch())
        return fail(kWrongUsage, u"a date is written 2026-11-22, or as a backup's name"_s);
    const std::optional<Repository> repository = openedPlace(session, &status);
    if (!repository)
        return status;
    const std::optional<Choice> choice = chosen(session, *repository, given, &status);
    if (!choice)
        return status;
    const SavedHome &saved = choice->saved;

    const InterruptGuard guard;
    const QString folder = given.has("--to") ? QFileInfo(given.text("--to")).absoluteFilePath()
                                             : u"%1/%2-%3"_s.arg(kUsualFolder, account, saved.backup);
    // What is half fetched has another name, so that nobody takes it for all.
    const QString partial = u"%1/.%2.partial"_s.arg(QFileInfo(folder).path(), QFileInfo(folder).fileName());
    if (QFile::exists(folder))
        return refuse(session, u"%1 is there already"_s.arg(folder), u"--to FOLDER names another one"_s);
    if (QFile::exists(partial))
        removeFolder(partial);
    if (const QString problem = makeFolder(partial); !problem.isEmpty())
        return refuse(session, problem);
    Fetched fetched = fetchAccount(*repository, account, saved, partial);
    if (fetched.problem.isEmpty() &&
        ::rename(QFile::encodeName(partial).constData(), QFile::encodeName(folder).constData()) != 0)
        fetched.problem = u"%1 cannot be made"_s.arg(folder);
    if (fetched.problem.isEmpty())
        return tellFetched(session, account, folder, *choice, fetched);
    removeFolder(partial);
    if (interrupted())
        return fail(interruptedStatus(), u"interrupted; nothing was kept"_s);
    return refuse(session, u"%1 of %2 could not be fetched: %3"_s.arg(account, saved.backup, fetched.problem),
                  u"corvctl offsite list %1 shows others"_s.arg(account));
}

} // namespace

Command offsiteFetchCommand()
{
    return {"fetch",
            "Fetch an account's home, database and state into a folder of root's alone",
            {{"ACCOUNT", "the account's name; it need not be on this server", Kind::Required, Names::Account},
             {"DATE", "the day (2026-11-22) or the backup (2026-11-22_031500); the newest without one", Kind::Optional},
             {"--to", "the folder, which is made; /var/backups/corvane/fetched/ACCOUNT-BACKUP without it", Kind::Value,
              Names::File},
             {"--server", "the server whose account it was, where several copy to the same place", Kind::Value}},
            fetch};
}

} // namespace corv::ctl
