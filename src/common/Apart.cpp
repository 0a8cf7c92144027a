#include "common/Apart.h"

#include "common/Fd.h"
#include "common/Stuck.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QList>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

constexpr qsizetype kMostOutput = 16'777'216;
constexpr qsizetype kMostStuck = 4;
constexpr int kKillMs = 2'000;
constexpr qint64 kLookMs = 10; // how often a child is looked at where the kernel has no descriptors of processes
#ifdef CORV_SHORT_TIMEOUTS
constexpr int kAnswerMs = 1'000;
#else
constexpr int kAnswerMs = 5'000;
#endif

// What comes out of the pipe until its end; nothing where that does not come in time, or too much does.
std::optional<QByteArray> readAll(int pipe, const QDeadlineTimer &deadline)
{
    QByteArray output;
    std::array<char, 65'536> buffer = {};
    while (output.size() <= kMostOutput) {
        pollfd ready = {pipe, POLLIN, 0};
        const int count = ::poll(&ready, 1, static_cast<int>(deadline.remainingTime()));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return {};
        const ssize_t bytes = ::read(pipe, buffer.data(), buffer.size());
        if (bytes < 0 && errno == EINTR)
            continue;
        if (bytes < 0)
            return {};
        if (bytes == 0)
            return output;
        output.append(buffer.data(), bytes);
    }
    return {};
}

[[noreturn]] void doWork(int pipe, pid_t parent, const std::function<QByteArray()> &work)
{
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    pipe = ::dup2(pipe, STDIN_FILENO);
    const int nowhere = ::open("/dev/null", O_RDWR);
    ::dup2(nowhere, STDOUT_FILENO);
    ::dup2(nowhere, STDERR_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    const bool isWritten = ::getppid() == parent && writeAll(pipe, work());
    ::_exit(isWritten ? EXIT_SUCCESS : EXIT_FAILURE); // what is to be printed is the other process's
}

} // namespace

QList<pid_t> children()
{
    QFile file(u"/proc/self/task/%1/children"_s.arg(::getpid()));
    QList<pid_t> all;
    if (!file.open(QIODevice::ReadOnly))
        return all;
    for (const QByteArray &number : file.readAll().simplified().split(' ')) {
        if (const pid_t child = number.toInt(); child > 0)
            all.append(child);
    }
    return all;
}

std::optional<int> endOf(pid_t child, int milliseconds)
{
    const QDeadlineTimer deadline(milliseconds);
    const Fd process(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    for (;;) {
        int status = 0;
        if (const pid_t ended = ::waitpid(child, &status, WNOHANG); ended != 0)
            return ended == child ? std::optional(status) : std::nullopt;
        if (deadline.hasExpired())
            return {};
        const qint64 rest = process ? deadline.remainingTime() : std::min(deadline.remainingTime(), kLookMs);
        pollfd ending = {process.get(), POLLIN, 0};
        (void)::poll(&ending, 1, static_cast<int>(rest));
    }
}

std::optional<QByteArray> workApart(int milliseconds, const std::function<QByteArray()> &work)
{
    const QDeadlineTimer deadline(milliseconds);
    std::array<int, 2> ends = {-1, -1};
    if (stuckWork() >= kMostStuck || ::pipe2(ends.data(), O_CLOEXEC) != 0)
        return {};
    const Fd out(ends[0]);
    Fd in(ends[1]);
    const pid_t parent = ::getpid();
    const pid_t worker = ::fork();
    if (worker == 0)
        doWork(in.get(), parent, work);
    in.reset();
    if (worker < 0)
        return {};

    const std::optional<QByteArray> output = readAll(out.get(), deadline);
    if (!output)
        (void)::kill(worker, SIGKILL);
    const std::optional<int> status = endOf(worker, kKillMs);
    if (!status)
        leaveStuck();
    const bool isDone = status && WIFEXITED(*status) && WEXITSTATUS(*status) == EXIT_SUCCESS;
    return isDone ? output : std::nullopt;
}

qsizetype stuckWork()
{
    const QList<pid_t> left = children();
    return std::count_if(left.cbegin(), left.cend(), [](pid_t child) { return !endOf(child, 0); });
}

bool isAnswering(const QString &path)
{
    const auto ask = [&path]() -> QByteArray {
        struct statvfs status = {};
        (void)::statvfs(QFile::encodeName(path).constData(), &status);
        return {};
    };
    return workApart(kAnswerMs, ask).has_value();
}

} // namespace corv
