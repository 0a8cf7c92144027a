#include "ctl/remote/Remote.h"

#include "ctl/Interrupt.h"
#include "ctl/Session.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kEndMs = 5'000;
constexpr int kSshFailed = 255; // ssh's own failures, as its manual says
constexpr int kNotFound = 127;  // the shell's, for a command that there is none of
constexpr int kCannotStart = 126;
constexpr qsizetype kComplaintBytes = 65'536;
constexpr qsizetype kLongestOutput = 16'777'216;
constexpr qsizetype kPieceOfOutput = 262'144;

// What stands between fork and exec: nothing that takes memory.
[[noreturn]] void becomeSsh(const std::vector<char *> &argv, int stream, int errors, pid_t parent)
{
    // An ssh must not stay, and hold a request up over there, when the client is killed.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent)
        ::_exit(kCannotStart);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    (void)::signal(SIGPIPE, SIG_DFL);
    ::dup2(stream, STDIN_FILENO);
    ::dup2(stream, STDOUT_FILENO);
    ::dup2(errors, STDERR_FILENO);
    ::execvp(argv.front(), argv.data());
    ::_exit(kCannotStart);
}

// Adds what is there, up to the limit; false at the end.
bool readSome(const Fd &from, QByteArray *into, qsizetype limit)
{
    std::array<char, 4096> buffer = {};
    const ssize_t count = ::read(from.get(), buffer.data(), buffer.size());
    if (count > 0)
        into->append(buffer.data(), std::min<qsizetype>(count, limit - into->size()));
    return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
}

// One of the two directions in which bytes are copied.
struct Flow
{
    int from;
    int to;
    QByteArray waiting; // read and not written yet
    bool isOpen;        // whether more may come
};

constexpr qsizetype kMostWaiting = 65'536;
// A pipe that can be written to takes so many bytes without waiting.
constexpr qsizetype kPiece = 4'096;

bool wantsMore(const Flow &flow)
{
    return flow.isOpen && flow.waiting.size() < kMostWaiting;
}

// Reads what is there; false at the end.
bool fill(Flow *flow)
{
    std::array<char, kPiece> buffer = {};
    const ssize_t count = ::read(flow->from, buffer.data(), buffer.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN))
        return true;
    flow->isOpen = count > 0;
    if (count > 0)
        flow->waiting.append(buffer.data(), count);
    return flow->isOpen;
}

// Writes what can be written now; false when that way is closed.
bool drain(Flow *flow)
{
    const auto size = static_cast<size_t>(std::min(flow->waiting.size(), kPiece));
    const ssize_t count = ::write(flow->to, flow->waiting.constData(), size);
    if (count < 0)
        return errno == EINTR || errno == EAGAIN;
    flow->waiting.remove(0, count);
    return true;
}

// Whether a wait was cut short by a signal that is nobody's wish to end: that of another child's end. wasInterrupted:
// whether there was such a wish when the wait began; what has to be done after it is not given up for the same one.
bool isDisturbed(int count, bool wasInterrupted)
{
    return count < 0 && errno == EINTR && interrupted() == wasInterrupted;
}

} // namespace

QString hostProblem(const QString &host)
{
    const QString name = host.section(u'@', -1);
    if (name.isEmpty() || host.startsWith(u'@'))
        return u"a host is given as HOST, USER@HOST or @GROUP"_s;
    // ssh would take it for an option.
    if (host.startsWith(u'-') || name.startsWith(u'-'))
        return u"a host's name does not begin with a dash"_s;
    // ssh may hand the name to a shell, where its settings say so (ProxyCommand, Match exec).
    static const auto shellCharacters = u"'`\"$\\;&<>|(){}!*?#~"_s;
    const bool isPlain = std::all_of(host.cbegin(), host.cend(), [](QChar c) {
        return c.isPrint() && !c.isSpace() && !shellCharacters.contains(c);
    });
    return isPlain ? QString() : u"a host's name holds no blanks, quotes or control characters"_s;
}

Remote::~Remote()
{
    m_stream.reset();
    m_errors.reset();
    if (m_process < 0)
        return;
    ::kill(m_process, SIGTERM);
    ::waitpid(m_process, nullptr, 0);
}

QString Remote::start(const QString &host, const QStringList &command)
{
    if (const QString problem = hostProblem(host); !problem.isEmpty())
        return problem;
    (void)wait(); // an earlier command's ssh is near its end
    m_complaints.clear();
    m_host = host;

    std::array<int, 2> stream = {};
    std::array<int, 2> errors = {};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, stream.data()) != 0)
        return u"ssh: cannot start"_s;
    m_stream = Fd(stream[0]);
    const Fd farStream(stream[1]);
    (void)::fcntl(m_stream.get(), F_SETFL, O_NONBLOCK);
    if (::pipe2(errors.data(), O_CLOEXEC) != 0)
        return u"ssh: cannot start"_s;
    m_errors = Fd(errors[0]);
    const Fd farErrors(errors[1]);

    QList<QByteArray> words = {"ssh", "-T", "--", host.toLocal8Bit()};
    for (const QString &word : command)
        words.append(word.toLocal8Bit());
    std::vector<char *> argv;
    for (QByteArray &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    const pid_t parent = ::getpid();
    m_process = ::fork();
    if (m_process == 0)
        becomeSsh(argv, farStream.get(), farErrors.get(), parent);
    return m_process < 0 ? u"ssh: cannot start"_s : QString();
}

Fd Remote::takeStream()
{
    return std::move(m_stream);
}

// Waits until the stream is ready. What the command complains of has to be taken meanwhile, or it waits for that.
Remote::Moved Remote::waitFor(short events, int seconds)
{
    const QDeadlineTimer end(seconds * 1000LL);
    const bool wasInterrupted = interrupted();
    for (;;) {
        std::array<pollfd, 2> waiting = {pollfd{m_stream.get(), events, 0}, pollfd{m_errors.get(), POLLIN, 0}};
        const int count = ::poll(waiting.data(), waiting.size(), static_cast<int>(end.remainingTime()));
        if (isDisturbed(count, wasInterrupted))
            continue;
        if (count <= 0)
            return count == 0 ? Moved::TimedOut : Moved::Ended;
        if (waiting[1].revents != 0 && !readSome(m_errors, &m_complaints, kComplaintBytes))
            m_errors.reset();
        if (waiting[0].revents != 0)
            return Moved::Some;
    }
}

Remote::Moved Remote::write(const QByteArray &data, int seconds)
{
    for (qsizetype done = 0; done < data.size();) {
        if (const Moved ready = waitFor(POLLOUT, seconds); ready != Moved::Some)
            return ready;
        const ssize_t count =
            ::send(m_stream.get(), data.constData() + done, static_cast<size_t>(data.size() - done), MSG_NOSIGNAL);
        if (count < 0 && errno != EAGAIN)
            return Moved::Ended;
        done += std::max<ssize_t>(count, 0);
    }
    return Moved::Some;
}

Remote::Moved Remote::read(QByteArray *data, int seconds)
{
    data->resize(kPieceOfOutput);
    ssize_t count = -1;
    do {
        if (const Moved ready = waitFor(POLLIN, seconds); ready != Moved::Some)
            return ready;
        count = ::recv(m_stream.get(), data->data(), static_cast<size_t>(data->size()), 0);
    } while (count < 0 && errno == EAGAIN);
    data->resize(std::max<ssize_t>(count, 0));
    return count > 0 ? Moved::Some : Moved::Ended;
}

void Remote::takeComplaints()
{
    pollfd waiting = {m_errors.get(), POLLIN, 0};
    while (m_errors && ::poll(&waiting, 1, 0) > 0) {
        if (!readSome(m_errors, &m_complaints, kComplaintBytes))
            m_errors.reset();
    }
}

void Remote::finishWriting()
{
    (void)::shutdown(m_stream.get(), SHUT_WR);
}

std::optional<QByteArray> Remote::readAll(int seconds, qsizetype limit)
{
    finishWriting();
    const QDeadlineTimer end(seconds * 1000LL);
    QByteArray output;
    QByteArray piece;
    for (;;) {
        const Moved moved = read(&piece, static_cast<int>((end.remainingTime() + 999) / 1000));
        if (moved == Moved::TimedOut)
            return {};
        if (moved == Moved::Ended)
            return output;
        output += piece.left(limit - output.size());
    }
}

int Remote::wait()
{
    if (m_process < 0)
        return m_status;
    // Not until the end of its errors: an ssh that stays behind for later connections keeps those open.
    const Fd process(static_cast<int>(::syscall(SYS_pidfd_open, m_process, 0)));
    const QDeadlineTimer end(kEndMs);
    const bool wasInterrupted = interrupted();
    bool hasEnded = false;
    while (!hasEnded && !end.hasExpired()) {
        std::array<pollfd, 2> waiting = {pollfd{m_errors.get(), POLLIN, 0}, pollfd{process.get(), POLLIN, 0}};
        const int count = ::poll(waiting.data(), waiting.size(), static_cast<int>(end.remainingTime()));
        if (isDisturbed(count, wasInterrupted))
            continue;
        if (count <= 0)
            break;
        if ((waiting[0].revents & POLLIN) != 0)
            (void)readSome(m_errors, &m_complaints, kComplaintBytes);
        else if (waiting[0].revents != 0)
            m_errors.reset();
        else
            hasEnded = true;
    }
    m_errors.reset();

    int status = 0;
    if (!hasEnded)
        ::kill(m_process, SIGTERM);
    ::waitpid(m_process, &status, 0);
    m_process = -1;
    m_status = WIFEXITED(status) ? WEXITSTATUS(status) : kSshFailed;
    return m_status;
}

QString Remote::explain() const
{
    const QString said = QString::fromUtf8(m_complaints).simplified();
    if (m_status == kCannotStart)
        return u"ssh: cannot start"_s;
    if (m_status == kNotFound)
        return u"%1: corvctl is not installed there"_s.arg(m_host);
    if (!said.isEmpty())
        return u"%1: %2"_s.arg(m_host, said);
    if (m_status == 0)
        return u"%1: the agent closed the connection without a reply"_s.arg(m_host);
    return u"%1: ssh ended with exit code %2"_s.arg(m_host).arg(m_status);
}

Distant runThere(const Options &options, const QStringList &command, int seconds)
{
    const QString host = QString::fromStdString(options.hosts.front());
    Remote remote;
    if (const QString problem = remote.start(host, command); !problem.isEmpty())
        return {{}, problem, kNoConnection};
    const int patience = options.timeout > 0 ? options.timeout : seconds;
    const std::optional<QByteArray> output = remote.readAll(patience, kLongestOutput);
    if (!output)
        return {{}, u"%1: no answer within %2 s"_s.arg(host, QString::number(patience)), kTimedOut};
    const int status = remote.wait();
    if (status == kDone)
        return {*output, {}, kDone};
    // Those are of a corvctl that was reached; ssh's own failures and the shell's have other numbers.
    const bool isItsOwn = status == kRefused || status == kWrongUsage || status == kTimedOut;
    return {*output, remote.explain(), isItsOwn ? status : kNoConnection};
}

Way wayTo(const QString &host, Remote *remote)
{
    return {[host, remote](Fd *stream) {
                const QString problem = remote->start(host, {u"corvctl"_s, u"proxy"_s});
                *stream = remote->takeStream();
                return problem;
            },
            [remote] {
                (void)remote->wait();
                return remote->explain();
            },
            [remote] { remote->takeComplaints(); }};
}

bool copyStreams(const Fd &socket)
{
    Flow in = {STDIN_FILENO, socket.get(), {}, true};
    Flow out = {socket.get(), STDOUT_FILENO, {}, true};
    // The replies are what it is about: when their flow has ended, all has.
    while (out.isOpen || !out.waiting.isEmpty()) {
        std::array<pollfd, 4> all = {
            pollfd{wantsMore(in) ? in.from : -1, POLLIN, 0}, pollfd{in.waiting.isEmpty() ? -1 : in.to, POLLOUT, 0},
            pollfd{wantsMore(out) ? out.from : -1, POLLIN, 0}, pollfd{out.waiting.isEmpty() ? -1 : out.to, POLLOUT, 0}};
        if (::poll(all.data(), all.size(), -1) < 0 && errno != EINTR)
            return false;

        if (all[0].revents != 0 && !fill(&in) && in.waiting.isEmpty())
            (void)::shutdown(socket.get(), SHUT_WR);
        if (all[2].revents != 0)
            (void)fill(&out);
        if (all[1].revents != 0 && !drain(&in))
            return false;
        if (all[3].revents != 0 && !drain(&out))
            return false;
        if (all[1].revents != 0 && !in.isOpen && in.waiting.isEmpty())
            (void)::shutdown(socket.get(), SHUT_WR);
    }
    return true;
}

} // namespace corv::ctl
