#include "common/Fd.h"
#include "common/FolderStream.h"
#include "ctl/Command.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/Transfer.h"
#include "ctl/commands/File.h"
#include "ctl/home/Beneath.h"
#include "ctl/screen/Escape.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kDeepest = 64;

// What is to be sent, folders before what is in them; paths begin below the folder that was named.
struct Item
{
    QString path;
    bool isFolder = false;
    qint64 size = 0;
};

struct Plan
{
    std::vector<Item> items;
    qint64 bytes = 0;
    qint64 files = 0;
    QString problem; // a sentence, where not all can be sent
};

void planFolder(const Fd &folder, const QString &path, int depth, Plan *plan);

void planEntry(const Fd &folder, const QByteArray &stored, const QString &path, int depth, Plan *plan)
{
    struct stat status = {};
    if (!stored.isValidUtf8())
        plan->problem = u"%1: the name is no text in UTF-8"_s.arg(path);
    else if (::fstatat(folder.get(), stored.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        plan->problem = u"%1: %2"_s.arg(path, QString::fromLocal8Bit(std::strerror(errno)));
    else if (S_ISREG(status.st_mode) && status.st_size > kLargestTransfer)
        plan->problem = u"%1: over 256 MiB; use SFTP for big files"_s.arg(path);
    else if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))
        plan->problem = u"%1 is neither a file nor a folder, which cannot be sent"_s.arg(path);
    if (!plan->problem.isEmpty())
        return;
    plan->items.push_back({path, S_ISDIR(status.st_mode), status.st_size});
    if (!S_ISDIR(status.st_mode)) {
        plan->bytes += status.st_size;
        ++plan->files;
        return;
    }
    const Fd inner(::openat(folder.get(), stored.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    planFolder(inner, path, depth + 1, plan);
}

void planFolder(const Fd &folder, const QString &path, int depth, Plan *plan)
{
    const FolderStream stream(::fdopendir(::dup(folder.get())));
    if (!stream || depth > kDeepest) {
        plan->problem = stream ? u"%1: folders are nested too deeply"_s.arg(path)
                               : u"%1: %2"_s.arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        return;
    }
    std::vector<QByteArray> names;
    while (const dirent *entry = ::readdir(stream.get())) {
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..")
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    for (const QByteArray &name : names) {
        const QString shown = QString::fromUtf8(name);
        planEntry(folder, name, path.isEmpty() ? shown : path + u'/' + shown, depth, plan);
        if (!plan->problem.isEmpty())
            return;
    }
}

Answer askFor(Session &session, QJsonObject args, const QString &operation, const QString &path)
{
    args.insert(u"op"_s, operation);
    args.insert(u"path"_s, path);
    return ask(session, u"files"_s, args);
}

// The status to end with where an answer is not what it should be.
std::optional<int> unlessDone(const Session &session, const Answer &answer, const QString &path)
{
    if (answer.ok())
        return {};
    if (answer.fate == Answer::Fate::Replied)
        note(path + u':');
    return settled(session, answer).value_or(kNoConnection);
}

// Opens a file of the plan. A tenant may have put a link in the place of any folder on the way since: none is followed.
Fd openFile(const Fd &folder, const QString &path)
{
    const QByteArray stored = QFile::encodeName(path);
    const Fd parent = openBeneath(folder.get(), parentOf(stored));
    return Fd(parent
                  ? ::openat(parent.get(), nameOf(stored).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)
                  : -1);
}

std::optional<int> sendFile(Session &session, const QJsonObject &args, const Fd &folder, const Item &item,
                            const QString &to, const QString &what)
{
    const Fd source = openFile(folder, item.path);
    if (!source)
        return fail(kRefused, u"%1: %2"_s.arg(item.path, QString::fromLocal8Bit(std::strerror(errno))));
    // What it is called may be another file by now, and nothing but files is sent.
    struct stat status = {};
    if (::fstat(source.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return fail(kRefused, u"%1 is no file any more"_s.arg(item.path));
    const QString name = transferName();
    const Transferred sent = putIntoTransfer(session, source, name, what);
    if (interrupted())
        return fail(interruptedStatus(), u"interrupted, so nothing was kept"_s);
    if (sent.status != kDone)
        return fail(sent.status, u"%1: %2"_s.arg(item.path, sent.problem));
    QJsonObject upload = args;
    upload.insert(u"transfer"_s, name);
    const Answer answer = askFor(session, upload, u"upload"_s, to);
    if (!answer.ok())
        removeFromTransfer(session, name);
    return unlessDone(session, answer, item.path);
}

// Sends all into the folder partial of the account.
std::optional<int> sendAll(Session &session, const QJsonObject &args, const Fd &folder, const Plan &plan,
                           const QString &partial)
{
    if (const std::optional<int> end = unlessDone(session, askFor(session, args, u"mkdir"_s, partial), partial))
        return end;
    qint64 number = 0;
    for (const Item &item : plan.items) {
        const QString to = partial + u'/' + item.path;
        std::optional<int> end;
        if (item.isFolder) {
            end = unlessDone(session, askFor(session, args, u"mkdir"_s, to), item.path);
        } else {
            const QString what =
                u"%1 of %2: %3"_s.arg(QString::number(++number), QString::number(plan.files), escaped(item.path));
            end = sendFile(session, args, folder, item, to, what);
        }
        if (!end && interrupted())
            end = fail(interruptedStatus(), u"interrupted, so nothing was kept"_s);
        if (end)
            return end;
    }
    return {};
}

} // namespace

int putFolder(Session &session, const Given &given)
{
    const QString local = given.text("FILE");
    QString path = given.text("PATH");
    if (path.isEmpty() || path.endsWith(u'/'))
        path += lastPart(local);
    const QString name = lastPart(path);
    if (name.isEmpty() || name == "."_L1 || name == ".."_L1)
        return fail(kWrongUsage, u"the folder needs a name: give a PATH"_s);
    const Fd folder(::open(QFile::encodeName(local).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        return fail(kWrongUsage, u"cannot read %1: %2"_s.arg(local, QString::fromLocal8Bit(std::strerror(errno))));
    Plan plan;
    planFolder(folder, {}, 0, &plan);
    if (!plan.problem.isEmpty())
        return fail(kRefused, plan.problem, u"nothing was sent"_s);

    // It is filled under another name, and shows up under its own when it is whole.
    const QJsonObject args = {{u"username"_s, given.text("ACCOUNT")}};
    const QString partial = path.chopped(name.size()) + u".corvctl-"_s + transferName();
    if (session.options.printOnly)
        return *settled(session, askFor(session, args, u"mkdir"_s, partial));
    if (askFor(session, args, u"list"_s, path).ok())
        return fail(kRefused, u"%1 exists already, so nothing was sent"_s.arg(path));
    const InterruptGuard guard;
    std::optional<int> end = sendAll(session, args, folder, plan, partial);
    if (!end) {
        QJsonObject rename = args;
        rename.insert(u"to"_s, path);
        end = unlessDone(session, askFor(session, rename, u"rename"_s, partial), path);
    }
    if (end) {
        forgetInterrupt(); // or this would not be sent
        (void)askFor(session, args, u"delete"_s, partial);
        return *end == kDone ? kRefused : *end;
    }
    if (!session.options.plain && !session.options.json)
        printLine(escaped(u"%1: %2 file(s), %3"_s.arg(path, QString::number(plan.files), humanBytes(plan.bytes))));
    return kDone;
}

} // namespace corv::ctl
