#include "ctl/home/Rights.h"

#include "common/Fd.h"
#include "common/Held.h"

#include <QDeadlineTimer>

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr auto kWebServer = "www-data";
constexpr int kLookMs = 500; // how often it is looked whether somebody holds the work up
constexpr qsizetype kMostSaid = 67'108'864;
constexpr qsizetype kReadBytes = 65'536;

// Gives up all of root's for good. False when any of it is left.
bool takeOn(const Rights &rights)
{
    return ::setgroups(rights.groups.size(), rights.groups.data()) == 0 &&
           ::setresgid(rights.group, rights.group, rights.group) == 0 &&
           ::setresuid(rights.user, rights.user, rights.user) == 0 && ::setuid(0) != 0;
}

[[noreturn]] void workHere(const Rights &rights, int out, const std::function<QByteArray()> &work)
{
    ::setsid(); // what is typed to end the client does not stop it half-way, and it has no terminal
    (void)std::signal(SIGPIPE, SIG_IGN);
    ::dup2(out, STDERR_FILENO + 1);
    ::close_range(STDERR_FILENO + 2, ~0U, 0);
    const rlimit noCore = {0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    ::umask(S_IRWXG | S_IRWXO);
    if (!takeOn(rights))
        ::_exit(1);
    // The user's other processes must not get at the web server's group, nor steer what is done.
    ::prctl(PR_SET_DUMPABLE, 0);
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    ::_exit(writeAll(STDERR_FILENO + 1, work()) ? 0 : 1);
}

// Reads what the work says to its end. False when it takes too long, is held up or says too much.
bool hear(int in, pid_t process, int milliseconds, QByteArray *said)
{
    const QDeadlineTimer deadline(milliseconds);
    for (;;) {
        pollfd wait = {in, POLLIN, 0};
        const int ready = ::poll(&wait, 1, kLookMs);
        if (deadline.hasExpired() || (ready == 0 && isHeld(process)))
            return false;
        if (ready <= 0)
            continue;
        QByteArray buffer(kReadBytes, Qt::Uninitialized);
        const ssize_t count = ::read(in, buffer.data(), static_cast<std::size_t>(buffer.size()));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count == 0;
        *said += buffer.first(count);
        if (said->size() > kMostSaid)
            return false;
    }
}

} // namespace

std::optional<Rights> accountRights(const QString &account)
{
    const passwd *user = ::getpwnam(account.toLocal8Bit().constData());
    if (!user || user->pw_uid == 0)
        return {};
    Rights rights = {user->pw_uid, user->pw_gid, {user->pw_gid}};
    const ::group *web = ::getgrnam(kWebServer);
    if (!web)
        return {};
    rights.groups.push_back(web->gr_gid);
    return rights;
}

std::optional<Rights> webServerRights()
{
    const passwd *user = ::getpwnam(kWebServer);
    if (!user || user->pw_uid == 0)
        return {};
    return Rights{user->pw_uid, user->pw_gid, {user->pw_gid}};
}

Work workAs(const Rights &rights, int milliseconds, const std::function<QByteArray()> &work)
{
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return {{}, u"there is no pipe to be had"_s};
    Fd in(ends[0]);
    Fd out(ends[1]);
    const pid_t process = ::fork();
    if (process == 0)
        workHere(rights, out.get(), work);
    out.reset();
    if (process < 0)
        return {{}, u"no process can be started"_s};

    Work done;
    const bool heard = hear(in.get(), process, milliseconds, &done.said);
    if (!heard)
        ::kill(process, SIGKILL);
    int status = -1;
    while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    if (!heard)
        done.problem = u"took too long"_s;
    else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        done.problem = u"ended early"_s;
    return done;
}

} // namespace corv::ctl
