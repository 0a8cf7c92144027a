#include "ctl/offsite/Stream.h"

#include "common/Child.h"
#include "common/Fd.h"
#include "ctl/Interrupt.h"

#include <QDeadlineTimer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>

#include <cerrno>
#include <csignal>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr size_t kChunk = 262'144;
constexpr int kLookMs = 500; // how often the programs are looked at
constexpr int kAgainMs = 1'000;
constexpr int kGoodbyeMs = 10'000;   // in which an interrupted program puts its own things right
constexpr qint64 kKeptWords = 4'096; // of what a program says
constexpr qint64 kTarBlock = 512;
constexpr auto kTooLong = "took too long"_L1;

// A file without a name: a pipe that nobody reads would hold up whoever says much.
Fd newNotes()
{
    return Fd(::memfd_create("notes", MFD_CLOEXEC));
}

QByteArray endOf(const Fd &notes)
{
    const off_t size = ::lseek(notes.get(), 0, SEEK_END);
    QByteArray text(static_cast<qsizetype>(std::min<qint64>(size, kKeptWords)), '\0');
    const ssize_t count =
        ::pread(notes.get(), text.data(), static_cast<size_t>(text.size()), std::max<off_t>(size - text.size(), 0));
    return text.left(std::max<ssize_t>(count, 0));
}

struct Streams
{
    int in = -1;
    int out = -1;
    int errors = -1;
};

void start(QProcess &process, const EndOfStream &end, const Streams &streams)
{
    prepareChild(process);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    if (!end.environment.isEmpty()) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (auto entry = end.environment.cbegin(); entry != end.environment.cend(); ++entry)
            environment.insert(entry.key(), entry.value());
        process.setProcessEnvironment(environment);
    }
    process.setChildProcessModifier([=, parent = ::getpid(), prepare = process.childProcessModifier()] {
        if (streams.in >= 0)
            ::dup2(streams.in, STDIN_FILENO);
        ::dup2(streams.out, STDOUT_FILENO);
        ::dup2(streams.errors, STDERR_FILENO);
        prepare();
        (void)::signal(SIGPIPE, SIG_DFL); // the guard's
        // Without us nobody could tell the receiver that what it got is not all.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(1);
    });
    process.start(end.program, end.args);
}

// First asked to end, which leaves a program the time to put its own things right, then killed. Asked more than once:
// one that has only just been started may not be itself yet.
void end(QProcess &process)
{
    const QDeadlineTimer goodbye(kGoodbyeMs);
    while (process.state() != QProcess::NotRunning && !goodbye.hasExpired()) {
        if (process.processId() > 0)
            (void)::kill(static_cast<pid_t>(-process.processId()), SIGINT);
        (void)process.waitForFinished(kAgainMs);
    }
    if (process.state() != QProcess::NotRunning)
        killGroup(process);
}

bool endedWell(const QProcess &process)
{
    return process.state() == QProcess::NotRunning && process.error() != QProcess::FailedToStart &&
           process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

QString failureOf(const QProcess &process, const Fd &notes)
{
    const QString words = QString::fromUtf8(endOf(notes)).simplified();
    return u"%1 failed: %2"_s.arg(process.program(),
                                  words.isEmpty() ? u"exit code %1"_s.arg(process.exitCode()) : words);
}

// The bytes between the two, and what is known of them.
struct Flow
{
    Fd in;  // from the sender
    Fd out; // to the receiver
    qint64 bytes = 0;
    QByteArray tail;
    bool isAtEnd = false;   // the sender closed its output
    bool isRefused = false; // the receiver takes no more
};

void keepTail(QByteArray &tail, const char *data, qsizetype size)
{
    tail.append(data + std::max<qsizetype>(size - kKeptTail, 0), std::min(size, kKeptTail));
    if (tail.size() > kKeptTail)
        tail.remove(0, tail.size() - kKeptTail);
}

// Moves what there is, waiting for at most kLookMs.
void move(Flow &flow, std::vector<char> &buffer, size_t &held, size_t &sent)
{
    const bool hasSome = sent < held;
    pollfd one = hasSome ? pollfd{flow.out.get(), POLLOUT, 0} : pollfd{flow.in.get(), POLLIN, 0};
    if (::poll(&one, 1, kLookMs) <= 0)
        return;
    if (hasSome) {
        const ssize_t count = ::write(flow.out.get(), buffer.data() + sent, held - sent);
        flow.isRefused = count < 0 && errno != EINTR && errno != EAGAIN;
        sent += count > 0 ? static_cast<size_t>(count) : 0;
        return;
    }
    const ssize_t count = ::read(flow.in.get(), buffer.data(), buffer.size());
    if (count < 0)
        return;
    flow.isAtEnd = count == 0;
    held = static_cast<size_t>(count);
    sent = 0;
    flow.bytes += count;
    keepTail(flow.tail, buffer.data(), count);
}

// Copies until the sender's output ends, the receiver goes away, the time is over or a signal comes. Returns why it
// ended early.
QString copy(Flow &flow, const QProcess &receiver, const QDeadlineTimer &deadline)
{
    std::vector<char> buffer(kChunk);
    size_t held = 0;
    size_t sent = 0;
    while (!flow.isAtEnd && !flow.isRefused) {
        if (interrupted())
            return u"interrupted"_s;
        if (deadline.hasExpired())
            return receiver.program() + u": "_s + kTooLong;
        move(flow, buffer, held, sent);
    }
    return {};
}

} // namespace

Streamed stream(const EndOfStream &sender, const EndOfStream &receiver, int milliseconds, const EndCheck &check)
{
    for (const QString &program : {sender.program, receiver.program}) {
        if (QStandardPaths::findExecutable(program).isEmpty())
            return {program + u": cannot start"_s, 0, {}};
    }
    int first[2] = {};
    int second[2] = {};
    const Fd senderNotes = newNotes();
    const Fd receiverNotes = newNotes();
    const Fd printed = newNotes();
    if (::pipe2(first, O_CLOEXEC) != 0)
        return {u"no pipe can be had"_s, 0, {}};
    Flow flow;
    flow.in = Fd(first[0]);
    Fd senderOut(first[1]);
    if (::pipe2(second, O_CLOEXEC) != 0)
        return {u"no pipe can be had"_s, 0, {}};
    Fd receiverIn(second[0]);
    flow.out = Fd(second[1]);
    (void)::fcntl(flow.out.get(), F_SETFL, O_NONBLOCK);

    const InterruptGuard guard; // also from the pipe of a receiver that is gone
    const QDeadlineTimer deadline(milliseconds);
    QProcess to;
    QProcess from;
    start(to, receiver,
          {receiverIn.get(), receiver.outputFile >= 0 ? receiver.outputFile : printed.get(), receiverNotes.get()});
    start(from, sender, {-1, senderOut.get(), senderNotes.get()});
    receiverIn.reset();
    senderOut.reset();

    QString problem = copy(flow, to, deadline);
    flow.in.reset();
    // Whoever takes no more has its own reason, which is the one to tell.
    if (problem.isEmpty() && !flow.isRefused) {
        if (!from.waitForFinished(kGoodbyeMs))
            problem = sender.program + u": "_s + kTooLong;
        else if (!endedWell(from))
            problem = failureOf(from, senderNotes);
        else if (check)
            problem = check(flow.bytes, flow.tail);
    }
    if (!problem.isEmpty())
        end(to);
    flow.out.reset();
    while (to.state() != QProcess::NotRunning && !to.waitForFinished(kLookMs) && problem.isEmpty()) {
        if (interrupted())
            problem = u"interrupted"_s;
        else if (deadline.hasExpired())
            problem = receiver.program + u": "_s + kTooLong;
    }
    end(to);
    end(from);
    if (problem.isEmpty() && !endedWell(to))
        problem = failureOf(to, receiverNotes);
    return {problem, flow.bytes, endOf(printed)};
}

QString tarEndProblem(qint64 bytes, const QByteArray &tail)
{
    const bool isEmpty = tail.size() == 2 * kTarBlock && tail.count('\0') == tail.size();
    return bytes % kTarBlock == 0 && isEmpty ? QString() : u"the archive has no end, it was cut off"_s;
}

} // namespace corv::ctl
