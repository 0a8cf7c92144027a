#include "https/Spaces.h"

#include "https/Cover.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corv::https {
namespace {

// What the keeper's one byte can be.
constexpr char kUp = 'u';
constexpr char kDown = 'd';
constexpr char kNoSpaces = 'n';
constexpr char kKilled = 'k';

constexpr qsizetype kLongestOutput = qsizetype{64} * 1024;
constexpr unsigned long kPollMs = 5;
constexpr rlim_t kLeastMemory = rlim_t{1} << 30;
constexpr rlim_t kMostMemory = rlim_t{2} << 30;

struct Command
{
    std::string program;
    std::vector<std::string> words;
    Cover cover;
};

// A server that listens on addresses of its own finds none of them in a network that is its own.
void allowAnyAddress()
{
    for (const char *path : {"/proc/sys/net/ipv4/ip_nonlocal_bind", "/proc/sys/net/ipv6/ip_nonlocal_bind"}) {
        const Fd file(::open(path, O_WRONLY | O_CLOEXEC));
        if (file)
            (void)writeAll(file.get(), "1\n");
    }
}

// Half of the machine's memory, within what a server with some ten or with ten thousand sites takes.
void limitMemory()
{
    const auto pages = static_cast<rlim_t>(std::max(0L, ::sysconf(_SC_PHYS_PAGES)));
    const auto bytes = pages * static_cast<rlim_t>(std::max(0L, ::sysconf(_SC_PAGESIZE)));
    const rlim_t most = std::clamp(bytes / 2, kLeastMemory, kMostMemory);
    const rlimit limit{most, most};
    (void)::setrlimit(RLIMIT_DATA, &limit);
}

// Where memory runs out, the trial goes before anything else does.
void offerToKill()
{
    const Fd file(::open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC));
    if (file)
        (void)writeAll(file.get(), "1000\n");
}

[[noreturn]] void becomeServer(const Command &command, int output)
{
    limitMemory();
    offerToKill();
    (void)::dup2(output, STDOUT_FILENO);
    (void)::dup2(output, STDERR_FILENO);
    // Neither the lock nor anything else goes with it: whoever waits for the lock would wait for the server.
    (void)::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    std::vector<char *> arguments{const_cast<char *>(command.program.c_str())};
    for (const std::string &word : command.words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    ::execv(command.program.c_str(), arguments.data());
    ::_exit(127);
}

// Adds what the server logged: the name spaces, and the log with them, end before anybody else can read it.
void keepLog(int output)
{
    const Fd log(::open(kErrorLog, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    QByteArray text(kLongestOutput, Qt::Uninitialized);
    const ssize_t count = log ? ::read(log.get(), text.data(), static_cast<size_t>(text.size())) : 0;
    text.truncate(std::max<ssize_t>(count, 0));
    (void)writeAll(output, text);
}

// The first process of the name spaces: with it ends all that runs there.
[[noreturn]] void beFirst(const Command &command, int report, int output)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const auto end = [&](char byte) {
        (void)!::write(report, &byte, 1);
        ::_exit(0);
    };
    if (!coverFolders(command.cover))
        end(kNoSpaces);
    allowAnyAddress();
    const pid_t server = ::fork();
    if (server < 0)
        end(kNoSpaces);
    if (server == 0)
        becomeServer(command, output);

    while (true) {
        struct stat status = {};
        if (::stat(kPidFile, &status) == 0 && status.st_size > 0)
            end(kUp);
        int code = 0;
        if (::waitpid(server, &code, WNOHANG) == server) {
            keepLog(output);
            // Nobody but the kernel kills it, for want of memory, which says nothing of what was tried.
            end(WIFSIGNALED(code) && WTERMSIG(code) == SIGKILL ? kKilled : kDown);
        }
        QThread::msleep(kPollMs);
    }
}

// Makes the name spaces and waits for their first process, so that all of it can be ended by ending this one.
[[noreturn]] void keep(const Command &command, int report, int output)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const char none = kNoSpaces;
    if (::unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWIPC) != 0) {
        (void)!::write(report, &none, 1);
        ::_exit(0);
    }
    const pid_t first = ::fork();
    if (first == 0)
        beFirst(command, report, output);
    if (first < 0)
        (void)!::write(report, &none, 1);
    else
        ::waitpid(first, nullptr, 0);
    ::_exit(0);
}

} // namespace

Spaces::~Spaces()
{
    stop();
}

bool Spaces::start(const QString &program, const QStringList &words, const QString &store, bool isFull)
{
    Command command{program.toStdString(), {}, {QFile::encodeName(store).toStdString(), isFull}};
    command.words.reserve(static_cast<size_t>(words.size()));
    for (const QString &word : words)
        command.words.push_back(word.toStdString());

    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return false;
    m_report = Fd(ends[0]);
    const Fd written(ends[1]);
    m_output = Fd(::memfd_create("output", MFD_CLOEXEC));
    m_keeper = ::fork();
    if (m_keeper == 0) {
        m_report.reset();
        keep(command, written.get(), m_output.get());
    }
    return m_keeper > 0;
}

Spaces::End Spaces::wait(int milliseconds)
{
    const QDeadlineTimer deadline(std::max(milliseconds, 0));
    pollfd report{m_report.get(), POLLIN, 0};
    int ready = 0;
    do
        ready = ::poll(&report, 1, static_cast<int>(deadline.remainingTime()));
    while (ready < 0 && errno == EINTR);
    char byte = 0;
    const bool isTold = ready > 0 && ::read(m_report.get(), &byte, 1) == 1;
    stop();
    if (ready == 0)
        return End::NoTime;
    if (!isTold)
        return End::Down;
    if (byte == kNoSpaces)
        return End::NoSpaces;
    if (byte == kKilled)
        return End::NoTime;
    return byte == kUp ? End::Up : End::Down;
}

QByteArray Spaces::output()
{
    QByteArray text(kLongestOutput, Qt::Uninitialized);
    const ssize_t count = ::pread(m_output.get(), text.data(), static_cast<size_t>(text.size()), 0);
    text.truncate(std::max<ssize_t>(count, 0));
    return text;
}

void Spaces::stop()
{
    if (m_keeper <= 0)
        return;
    (void)::kill(m_keeper, SIGKILL); // its first process dies with it
    (void)::waitpid(m_keeper, nullptr, 0);
    m_keeper = -1;
}

} // namespace corv::https
