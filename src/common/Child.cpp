#include "common/Child.h"

#include <QProcess>

#include <csignal>

#include <linux/close_range.h>
#include <unistd.h>

namespace corv {
namespace {

// A killed process is gone at once, but for one that the kernel holds in a device.
constexpr int kKilledMs = 5'000;

} // namespace

void prepareChild(QProcess &process)
{
    process.setChildProcessModifier([] { // between fork and exec
        ::setsid();
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    });
}

void killGroup(QProcess &process)
{
    // Killing the process alone would leave what it started running: runuser's own child above all.
    if (process.processId() > 0)
        ::kill(static_cast<pid_t>(-process.processId()), SIGKILL);
    process.kill();
    process.waitForFinished(kKilledMs);
}

} // namespace corv
