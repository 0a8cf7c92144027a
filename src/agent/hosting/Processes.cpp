#include "agent/hosting/Processes.h"

#include "common/Fd.h"
#include "common/FolderStream.h"
#include "common/FormerIds.h"

#include <QDeadlineTimer>
#include <QList>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corv::hosting {
namespace {

constexpr int kPatienceMs = 3'000; // a killed process is gone at once, but for one that the kernel holds in a device
constexpr long kPauseNs = 5'000'000;
constexpr uid_t kNoUser = 4'294'967'294; // the id of no process

// Kills all that the user may signal, in one call of the kernel's that no fork outruns. In a child that has the user's
// id where it sends and nobody's where it receives: so it reaches exactly that user's processes, and none reaches it.
void killAllOf(uid_t user)
{
    const pid_t child = ::fork();
    if (child == 0) {
        if (::setresuid(kNoUser, user, kNoUser) == 0)
            ::kill(-1, SIGKILL);
        ::_exit(0);
    }
    while (child > 0 && ::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

bool haveOneRoot(const char *one, const char *other)
{
    struct stat first = {};
    struct stat second = {};
    return ::stat(one, &first) == 0 && ::stat(other, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

// The living processes of a user. In a root of our own, which is a system in a folder of another, the same number is
// somebody else outside: there it is those in our root alone.
QList<pid_t> processesOf(uid_t user, bool inOwnRoot)
{
    QList<pid_t> found;
    const FolderStream processes(::opendir("/proc"));
    while (const dirent *entry = processes ? ::readdir(processes.get()) : nullptr) {
        const std::string folder = std::string("/proc/") + entry->d_name;
        const pid_t process = std::atoi(entry->d_name); // NOLINT(cert-err34-c): 0 for what is no process
        const Fd file(process > 0 ? ::open((folder + "/status").c_str(), O_RDONLY | O_CLOEXEC) : -1);
        std::array<char, 1024> status = {}; // the ids come within the first few hundred bytes
        if (file && ::read(file.get(), status.data(), status.size() - 1) > 0 &&
            isLivingProcessOf(user, status.data()) && (!inOwnRoot || haveOneRoot((folder + "/root/.").c_str(), "/")))
            found.append(process);
    }
    return found;
}

} // namespace

bool isLivingProcessOf(uid_t user, const char *status)
{
    // The name comes first and is the process's own choice; a line feed in it is written as "\n".
    const char *state = std::strstr(status, "\nState:\t");
    const char *ids = state ? std::strstr(state, "\nUid:\t") : nullptr;
    unsigned real = 0;
    unsigned saved = 0;
    // NOLINTNEXTLINE(cert-err34-c): the kernel's own numbers
    if (!ids || std::sscanf(ids, "\nUid:\t%u\t%*u\t%u", &real, &saved) != 2)
        return false;
    const char letter = state[std::strlen("\nState:\t")];
    return letter != 'Z' && letter != 'X' && (real == user || saved == user);
}

void endProcesses(uid_t user, InOwnRoot which)
{
    if (!isAccountId(user) || user == ::getuid())
        return;
    const bool inOwnRoot = which == InOwnRoot::Only || !haveOneRoot("/proc/1/root/.", "/");
    const QDeadlineTimer deadline(kPatienceMs);
    for (;;) {
        if (!inOwnRoot)
            killAllOf(user);
        const QList<pid_t> left = processesOf(user, inOwnRoot);
        if (left.isEmpty() || deadline.hasExpired())
            return;
        if (inOwnRoot)
            std::for_each(left.cbegin(), left.cend(), [](pid_t process) { ::kill(process, SIGKILL); });
        // Killed, but not yet gone; or one that became the user's just now, such as a job that cron has begun.
        const timespec pause = {0, kPauseNs};
        (void)::nanosleep(&pause, nullptr);
    }
}

} // namespace corv::hosting
