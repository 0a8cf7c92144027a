#include "agent/files/Helper.h"

#include "agent/files/Names.h"
#include "agent/files/Operations.h"
#include "common/Fd.h"
#include "common/Json.h"

#include <QDir>

#include <csignal>

#include <fcntl.h>
#include <sys/prctl.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::files {
namespace {

const auto kOutside = "that path is outside the account's home"_L1;

// A stream that is closed would hand its number to the next file that is opened, and a user's file would get the
// answer.
bool ensureStream(int descriptor, int flags)
{
    return ::fcntl(descriptor, F_GETFD) >= 0 || ::open("/dev/null", flags) == descriptor;
}

void prepareProcess()
{
    // The user's other processes must neither trace this one nor answer in its place.
    ::prctl(PR_SET_DUMPABLE, 0);
    // A reader that has gone and a file that gets too big are errors to report, no reason to die.
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGXFSZ, SIG_IGN);
}

int answer(const Reply &reply)
{
    (void)writeAll(STDOUT_FILENO, compactJson(reply) + '\n'); // whoever asked has gone
    return 0;
}

// A download's failure must not be taken for the file, so it goes to standard error.
int refuse(const QString &problem)
{
    (void)writeAll(STDERR_FILENO, problem.toUtf8() + '\n');
    return 1;
}

Reply renameInHome(const QString &home, const QString &source, const QString &path)
{
    const QString target = resolve(home, path);
    if (source == home || target.isEmpty() || target == home)
        return fail(u"cannot rename that"_s);
    return rename(storedPath(source), storedPath(target));
}

Reply removeInHome(const QString &home, const QString &target)
{
    if (target == home)
        return fail(u"cannot delete the home folder"_s);
    return remove(storedPath(target));
}

Reply operate(const QString &operation, const QString &home, const QString &target, const QString &to)
{
    if (operation == "list"_L1)
        return list(storedPath(target));
    if (operation == "read"_L1)
        return read(storedPath(target));
    if (operation == "write"_L1 || operation == "upload"_L1)
        return write(storedPath(target));
    if (operation == "mkdir"_L1)
        return makeFolder(storedPath(target));
    if (operation == "rename"_L1)
        return renameInHome(home, target, to);
    if (operation == "delete"_L1)
        return removeInHome(home, target);
    return fail(u"unknown file operation"_s);
}

} // namespace

QString resolve(const QString &home, const QString &path)
{
    const QString target = QDir::cleanPath(home + u'/' + path);
    return target == home || target.startsWith(home + u'/') ? target : QString();
}

int helper(const QStringList &args)
{
    const QString operation = args.value(0);
    const bool isDownload = operation == "download"_L1;
    if (!ensureStream(STDIN_FILENO, O_RDONLY) || ::fcntl(STDOUT_FILENO, F_GETFD) < 0)
        return isDownload ? refuse(u"cannot read it"_s) : 1;
    (void)ensureStream(STDERR_FILENO, O_WRONLY);
    prepareProcess();

    const QString home = args.value(1);
    const QString target = resolve(home, args.value(2));
    const bool inside = home.startsWith("/home/"_L1) && !target.isEmpty();
    if (isDownload) {
        const QString problem = inside ? download(storedPath(target)) : QString(kOutside);
        return problem.isEmpty() ? 0 : refuse(problem);
    }
    return answer(inside ? operate(operation, home, target, args.value(3)) : fail(kOutside));
}

} // namespace corv::files
