#include "common/Fd.h"
#include "common/Tree.h"
#include "ctl/Command.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/Transfer.h"
#include "ctl/commands/File.h"
#include "ctl/screen/Escape.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Far over what a site has, and an end for a server that makes names up for ever.
constexpr int kDeepest = 64;
constexpr int kMostEntries = 200'000;

// A folder that is being fetched, and what came of it so far.
struct Fetching
{
    Session &session;
    QJsonObject args; // username and op; the path is put in for each
    int entries = 0;
    int files = 0;
    int left = 0; // links, and what the agent refused
    qint64 bytes = 0;
};

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

// A name is what the server says: one that leads out of the folder is refused.
bool isName(const QString &name)
{
    return !name.isEmpty() && name != "."_L1 && name != ".."_L1 && !name.contains(u'/') && !name.contains(QChar(u'\0'));
}

Answer askFor(Fetching *fetching, const QString &operation, const QString &path)
{
    QJsonObject args = fetching->args;
    args.insert(u"op"_s, operation);
    args.insert(u"path"_s, path);
    return ask(fetching->session, u"files"_s, args);
}

// Says why one thing is missing and goes on, where the agent itself refused it; anything else ends it all.
std::optional<int> leftOut(Fetching *fetching, const QString &path, const Answer &answer)
{
    if (answer.fate != Answer::Fate::Replied)
        return settled(fetching->session, answer).value_or(kNoConnection);
    ++fetching->left;
    note(u"%1: %2"_s.arg(path, oneSentence(answer.reply.value("error"_L1).toString())));
    return {};
}

std::optional<int> fetchFile(Fetching *fetching, const QString &path, const QString &name, const Fd &folder)
{
    const Answer answer = askFor(fetching, u"download"_s, path);
    if (!answer.ok())
        return leftOut(fetching, path, answer);
    // Never through a link, never in the place of anything: a server may name one thing twice.
    const Fd file(::openat(folder.get(), QFile::encodeName(name).constData(),
                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    const QString transfer = answer.reply.value("transfer"_L1).toString();
    if (!file) {
        const QString problem = systemError();
        removeFromTransfer(fetching->session, transfer);
        return fail(kRefused, u"%1: cannot write: %2"_s.arg(path, problem));
    }
    const qint64 size = answer.reply.value("size"_L1).toInteger(-1);
    const QString what = u"%1: %2"_s.arg(QString::number(fetching->files + 1), escaped(path));
    const Transferred taken = takeFromTransfer(fetching->session, transfer, size, file, what);
    if (interrupted())
        return fail(interruptedStatus(), u"interrupted, so nothing was kept"_s);
    if (taken.status != kDone)
        return fail(taken.status, u"%1: %2"_s.arg(path, taken.problem));
    ++fetching->files;
    fetching->bytes += std::max<qint64>(size, 0);
    return {};
}

// Fills the folder with what is in the account's folder path. Gives the status to end with where all has to end.
std::optional<int> fetchInto(Fetching *fetching, const QString &path, const Fd &folder, int depth)
{
    if (depth > kDeepest)
        return fail(kRefused, u"%1: folders are nested too deeply"_s.arg(path));
    const Answer answer = askFor(fetching, u"list"_s, path);
    if (!answer.ok())
        return depth == 0 ? settled(fetching->session, answer) : leftOut(fetching, path, answer);
    if (answer.reply.value("truncated"_L1).toBool())
        return fail(kRefused, u"%1 has more entries than the agent lists, so it cannot be fetched whole"_s.arg(path),
                    u"SFTP fetches it"_s);

    for (const QJsonValue value : answer.reply.value("entries"_L1).toArray()) {
        const QJsonObject entry = value.toObject();
        const QString name = entry.value("name"_L1).toString();
        const QString below = path.isEmpty() || path.endsWith(u'/') ? path + name : path + u'/' + name;
        if (interrupted())
            return fail(interruptedStatus(), u"interrupted, so nothing was kept"_s);
        if (!isName(name) || ++fetching->entries > kMostEntries)
            return fail(kRefused, u"%1: the server names what cannot be in a folder"_s.arg(below));
        if (entry.value("link"_L1).toBool()) {
            ++fetching->left;
            note(u"%1: a link, which is left out"_s.arg(below));
            continue;
        }
        std::optional<int> end;
        if (!entry.value("dir"_L1).toBool()) {
            end = fetchFile(fetching, below, name, folder);
        } else {
            const QByteArray stored = QFile::encodeName(name);
            const bool isMade = ::mkdirat(folder.get(), stored.constData(), 0777) == 0;
            const Fd inner(
                isMade ? ::openat(folder.get(), stored.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)
                       : -1);
            if (!inner)
                return fail(kRefused, u"%1: cannot make the folder: %2"_s.arg(below, systemError()));
            end = fetchInto(fetching, below, inner, depth + 1);
        }
        if (end)
            return end;
    }
    return {};
}

} // namespace

int getFolder(Session &session, const Given &given)
{
    if (session.options.isOneOfMany)
        return fail(kWrongUsage, u"folders of several servers cannot have one name: name one server"_s);
    const QString path = given.text("PATH");
    if (session.options.printOnly)
        return *settled(session, ask(session, u"files"_s, fileArguments(given, u"list"_s)));
    const QString name = lastPart(path).isEmpty() ? given.text("ACCOUNT") : lastPart(path);
    QString local = given.text("FILE");
    if (local.isEmpty() || QFileInfo(local).isDir())
        local = (local.isEmpty() ? u"."_s : local) + u'/' + name;
    const QFileInfo target(QDir::cleanPath(local));
    if (target.exists() || target.isSymLink())
        return fail(kRefused, u"%1 exists already, so nothing was fetched"_s.arg(target.filePath()));

    // It shows up under its name when it is whole.
    const InterruptGuard guard;
    const Fd parent(::open(QFile::encodeName(target.path()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const QByteArray partial = ".corvctl-" + transferName().toLatin1();
    // For its owner alone: what an account keeps from others is in it too.
    const bool isMade = parent && ::mkdirat(parent.get(), partial.constData(), 0700) == 0;
    const Fd folder(
        isMade ? ::openat(parent.get(), partial.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1);
    if (!folder)
        return fail(kRefused, u"%1: cannot write: %2"_s.arg(target.filePath(), systemError()));

    Fetching fetching = {session, fileArguments(given, u"list"_s)};
    std::optional<int> end = fetchInto(&fetching, path, folder, 0);
    const QByteArray stored = QFile::encodeName(target.fileName());
    if (!end && ::renameat2(parent.get(), partial.constData(), parent.get(), stored.constData(), RENAME_NOREPLACE) != 0)
        end = fail(kRefused, u"%1: cannot be given its name: %2"_s.arg(target.filePath(), systemError()));
    if (end) {
        (void)removeTree(parent.get(), partial.constData());
        return *end == kDone ? kRefused : *end;
    }
    if (!session.options.plain && !session.options.json)
        printLine(escaped(u"%1: %2 file(s), %3"_s.arg(target.filePath(), QString::number(fetching.files),
                                                      humanBytes(fetching.bytes))));
    return fetching.left == 0 ? kDone : fail(kRefused, u"%1 of it could not be fetched"_s.arg(fetching.left));
}

} // namespace corv::ctl
