#include "agent/postgres/Lesser.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <grp.h>
#include <linux/close_range.h>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace corv {
namespace {

constexpr uid_t kNobody = 65'534; // the kernel's own number for it

void closeAllBut(int first, int second)
{
    const int low = std::min(first, second);
    const int high = std::max(first, second);
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        (void)::dup2(null, stream);
    unsigned next = STDERR_FILENO + 1;
    for (const int descriptor : {low, high}) {
        if (descriptor < static_cast<int>(next))
            continue;
        if (descriptor > static_cast<int>(next))
            ::close_range(next, static_cast<unsigned>(descriptor) - 1, 0);
        next = static_cast<unsigned>(descriptor) + 1;
    }
    ::close_range(next, ~0U, 0);
}

void resetSignals()
{
    for (int number = 1; number < NSIG; ++number)
        (void)std::signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    (void)std::signal(SIGPIPE, SIG_IGN);
}

// What a change of users takes back: not to be traced or looked into, and to end with the agent.
bool guard()
{
    return ::prctl(PR_SET_DUMPABLE, 0) == 0 && ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 &&
           ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

// Only the effective user counts where a socket asks who connects; the two others, which nobody has, keep the user's
// own processes from signalling this one. All capabilities go with the last trace of root.
bool become(const passwd &user)
{
    return ::initgroups(user.pw_name, user.pw_gid) == 0 && ::setresgid(user.pw_gid, user.pw_gid, user.pw_gid) == 0 &&
           ::setresuid(kNobody, user.pw_uid, kNobody) == 0 && guard();
}

} // namespace

Lesser startLesser(const QByteArray &user, int kept, unsigned seconds, const std::function<void(int report)> &work)
{
    const passwd *const entry = ::getpwnam(user.constData());
    std::array<int, 2> ends = {-1, -1};
    if (!entry || entry->pw_uid == 0 || ::pipe2(ends.data(), O_CLOEXEC) != 0)
        return {};
    Fd reading(ends[0]);
    Fd writing(ends[1]);

    const pid_t agent = ::getpid();
    const pid_t child = ::fork();
    if (child == 0) {
        resetSignals();
        closeAllBut(kept, writing.get());
        ::alarm(seconds);
        // The agent may have ended before its end could be asked for.
        if (become(*entry) && ::getppid() == agent)
            work(writing.get());
        std::_Exit(EXIT_SUCCESS);
    }
    if (child < 0)
        return {};
    return {child, std::move(reading)};
}

bool leaveUser()
{
    return ::setresuid(kNobody, kNobody, kNobody) == 0 && guard();
}

bool hasReported(const Lesser &process)
{
    pollfd ready = {process.report.get(), POLLIN, 0};
    return ::poll(&ready, 1, 0) == 1 && (ready.revents & POLLIN) != 0;
}

QByteArray endOf(Lesser &process, int milliseconds, qsizetype maxBytes)
{
    QByteArray report;
    const QDeadlineTimer deadline(milliseconds);
    std::array<char, 1024> piece = {};
    while (process.id > 0 && report.size() < maxBytes) {
        pollfd ready = {process.report.get(), POLLIN, 0};
        const int found = ::poll(&ready, 1, static_cast<int>(deadline.remainingTime()));
        if (found < 0 && errno == EINTR)
            continue;
        const ssize_t count = found > 0 ? ::read(process.report.get(), piece.data(), piece.size()) : 0;
        if (count <= 0)
            break;
        report.append(piece.data(), count);
    }
    if (process.id > 0) {
        ::kill(process.id, SIGKILL);
        while (::waitpid(process.id, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    process = {};
    return report.left(maxBytes);
}

} // namespace corv
