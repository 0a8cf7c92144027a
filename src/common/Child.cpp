#include "common/Child.h"

#include "common/Environment.h"
#include "common/FolderStream.h"
#include "common/Held.h"
#include "common/Stuck.h"

#include <QDeadlineTimer>
#include <QProcess>

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

// A killed process is gone at once, but for one that the kernel holds in a device.
constexpr int kKilledMs = 5'000;
constexpr int kLookMs = 500; // how often a process is looked at whether somebody holds it

// Closes the end of a pipe that a process object (Qt 6.4) leaves open when its program cannot be executed. Between two
// programs this process has no pipe of its own making, and those that it was given are not closed in children.
void closeLostPipes()
{
    const FolderStream descriptors(::opendir("/proc/self/fd"));
    while (const dirent *entry = descriptors ? ::readdir(descriptors.get()) : nullptr) {
        const int descriptor = std::atoi(entry->d_name); // NOLINT(cert-err34-c): the kernel's own numbers, and "." as 0
        struct stat status = {};
        if (descriptor > STDERR_FILENO && ::fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode) &&
            (::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0)
            ::close(descriptor);
    }
}

bool isStopped(qint64 pid)
{
    siginfo_t state = {};
    return ::waitid(P_PID, static_cast<id_t>(pid), &state, WSTOPPED | WNOHANG | WNOWAIT) == 0 && state.si_pid == pid;
}

// runuser alone hands a tool over. What others start under users of their own, such as apt-get, is not ended half-way.
bool runsForUser(const QProcess &process)
{
    return process.program() == "runuser"_L1;
}

} // namespace

void prepareChild(QProcess &process)
{
    // Qt 6.8 learns of a program's end by this signal alone, and whoever started this process may have left it blocked:
    // no program would ever end then.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGCHLD);
    sigprocmask(SIG_UNBLOCK, &ends, nullptr);

    QObject::connect(&process, &QProcess::errorOccurred, &process, [&process](QProcess::ProcessError error) {
        // Emitted last of all, when the object has closed what it knows of.
        if (error == QProcess::FailedToStart)
            QObject::connect(&process, &QObject::destroyed, closeLostPipes);
    });
    process.setProcessEnvironment(childEnvironment());
    process.setChildProcessModifier([] { // between fork and exec
        ::setsid();
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        // Left ignored by the one or other terminal that the client is started in.
        (void)::signal(SIGTTIN, SIG_DFL);
        (void)::signal(SIGTTOU, SIG_DFL);
        ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    });
}

bool waitForEnd(QProcess &process, int milliseconds, const std::function<bool()> &goesOn)
{
    const QDeadlineTimer deadline(milliseconds);
    // A program that has ended by now cannot be waited for.
    while (process.state() != QProcess::NotRunning) {
        const qint64 rest = deadline.remainingTime();
        if (process.waitForFinished(static_cast<int>(std::min<qint64>(rest, kLookMs))))
            break;
        if (deadline.hasExpired() || (goesOn && !goesOn()))
            return false;
        const auto pid = static_cast<pid_t>(process.processId());
        if (pid > 0 && isStopped(pid))
            ::kill(-pid, SIGKILL);
        else if (pid > 0 && runsForUser(process) && isHeld(pid))
            return false;
    }
    return true;
}

void killGroup(QProcess &process)
{
    // Killing the process alone would leave what it started running: runuser's own child above all.
    if (process.processId() > 0)
        ::kill(static_cast<pid_t>(-process.processId()), SIGKILL);
    process.kill();
    process.waitForFinished(kKilledMs);
    leaveStuck(); // the first may have ended, and another be stuck
}

} // namespace corv
