#include "ctl/remote/Hosts.h"

#include "common/Fd.h"
#include "ctl/Session.h"
#include "ctl/screen/Escape.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr size_t kFew = 4;
constexpr size_t kMost = 32;
constexpr size_t kPartOfMany = 16;
constexpr size_t kChunk = 65'536;

// One of a process's two outputs.
struct Output
{
    Fd from;
    int to = -1;
    QByteArray text; // as far as it is no whole line yet
};

// A host that is being worked on.
struct Work
{
    size_t host = 0; // its place in the list
    pid_t process = -1;
    std::array<Output, 2> outputs;
};

// What becomes of the process for one host. It has no terminal, so that four of them do not ask for passwords at once.
[[noreturn]] void workOn(const std::string &host, const std::function<int(const std::string &)> &work, int out, int err,
                         pid_t parent)
{
    ::setsid();
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent)
        ::_exit(kNoConnection);
    const Fd nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ::dup2(nothing.get(), STDIN_FILENO);
    ::dup2(out, STDOUT_FILENO);
    ::dup2(err, STDERR_FILENO);
    const int status = work(host);
    (void)std::fflush(nullptr);
    ::_exit(status);
}

bool begin(size_t index, const std::string &host, const std::function<int(const std::string &)> &work, Work *begun)
{
    std::array<int, 2> out = {};
    std::array<int, 2> err = {};
    if (::pipe2(out.data(), O_CLOEXEC) != 0)
        return false;
    begun->outputs[0] = {Fd(out[0]), STDOUT_FILENO, {}};
    const Fd farOut(out[1]);
    if (::pipe2(err.data(), O_CLOEXEC) != 0)
        return false;
    begun->outputs[1] = {Fd(err[0]), STDERR_FILENO, {}};
    const Fd farErr(err[1]);

    begun->host = index;
    (void)std::fflush(nullptr); // what waits to be written would be written by both
    const pid_t parent = ::getpid();
    begun->process = ::fork();
    if (begun->process == 0)
        workOn(host, work, farOut.get(), farErr.get(), parent);
    return begun->process > 0;
}

// Passes on what an output has; at its end it is closed.
void passOn(size_t host, Output *output, const HostLines &take)
{
    std::array<char, kChunk> buffer = {};
    const ssize_t count = ::read(output->from.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR)
        return;
    if (count > 0)
        output->text.append(buffer.data(), count);
    else
        output->from.reset();
    // A reply may be one line of many megabytes: what was looked through already is not looked through again.
    if (count > 0 && std::find(buffer.data(), buffer.data() + count, '\n') == buffer.data() + count)
        return;
    take(host, output->to, takeLines(&output->text, {}, count <= 0));
}

bool hasEnded(const Work &work)
{
    return !work.outputs[0].from && !work.outputs[1].from;
}

int statusOf(const Work &work)
{
    int status = 0;
    while (::waitpid(work.process, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : kNoConnection;
}

// Waits for some output of those who work.
void passSome(std::vector<Work> *working, const HostLines &take)
{
    std::vector<pollfd> waiting;
    std::vector<std::pair<Output *, const Work *>> outputs;
    for (Work &work : *working) {
        for (Output &output : work.outputs) {
            if (output.from) {
                waiting.push_back({output.from.get(), POLLIN, 0});
                outputs.emplace_back(&output, &work);
            }
        }
    }
    if (::poll(waiting.data(), waiting.size(), -1) < 0)
        return;
    for (size_t i = 0; i < waiting.size(); ++i) {
        if (waiting[i].revents != 0)
            passOn(outputs[i].second->host, outputs[i].first, take);
    }
}

} // namespace

QString wordFor(int status)
{
    switch (status) {
    case kDone:
        return u"done"_s;
    case kRefused:
        return u"refused or at fault"_s;
    case kWrongUsage:
        return u"wrong usage"_s;
    case kTimedOut:
        return u"timed out"_s;
    default:
        return u"no connection"_s;
    }
}

QByteArray takeLines(QByteArray *text, const QByteArray &prefix, bool atEnd)
{
    QByteArray lines;
    qsizetype begin = 0;
    for (qsizetype end = text->indexOf('\n'); end >= 0; end = text->indexOf('\n', begin)) {
        lines += prefix + text->mid(begin, end + 1 - begin);
        begin = end + 1;
    }
    text->remove(0, begin);
    if (atEnd && !text->isEmpty())
        lines += prefix + *text + '\n';
    if (atEnd)
        text->clear();
    return lines;
}

QString hostsSummary(const std::vector<std::string> &hosts, const std::vector<int> &statuses)
{
    QStringList parts;
    for (const int status : {kDone, kRefused, kWrongUsage, kNoConnection, kTimedOut}) {
        QStringList names;
        for (size_t i = 0; i < hosts.size(); ++i) {
            if (wordFor(statuses[i]) == wordFor(status))
                names.append(escaped(QString::fromStdString(hosts[i])));
        }
        if (names.isEmpty())
            continue;
        const QString count = u"%1 %2"_s.arg(names.size()).arg(wordFor(status));
        parts.append(status == kDone ? count : u"%1 (%2)"_s.arg(count, names.join(u' ')));
    }
    return u"%1 hosts: %2"_s.arg(hosts.size()).arg(parts.join(", "_L1));
}

size_t sideBySideOf(size_t hosts)
{
    return std::clamp(hosts / kPartOfMany, kFew, kMost);
}

std::vector<int> workOnEachHost(const std::vector<std::string> &hosts,
                                const std::function<int(const std::string &)> &work, const HostLines &take,
                                size_t sideBySide)
{
    const size_t most = sideBySide > 0 ? sideBySide : sideBySideOf(hosts.size());
    std::vector<int> statuses(hosts.size(), kNoConnection);
    std::vector<Work> working;
    size_t next = 0;
    while (next < hosts.size() || !working.empty()) {
        while (next < hosts.size() && working.size() < most) {
            Work begun;
            if (begin(next, hosts[next], work, &begun))
                working.push_back(std::move(begun));
            ++next;
        }
        if (!working.empty())
            passSome(&working, take);
        for (const Work &one : working) {
            if (hasEnded(one))
                statuses[one.host] = statusOf(one);
        }
        std::erase_if(working, hasEnded);
    }
    return statuses;
}

int endOfHosts(const std::vector<std::string> &hosts, const std::vector<int> &statuses)
{
    (void)writeAll(STDERR_FILENO, hostsSummary(hosts, statuses).toUtf8() + '\n');
    return statuses.empty() ? kDone : *std::max_element(statuses.begin(), statuses.end());
}

int onEachHost(const std::vector<std::string> &hosts, const std::function<int(const std::string &)> &work)
{
    const auto withName = [&hosts](size_t host, int to, const QByteArray &lines) {
        QByteArray text = lines;
        (void)writeAll(to, takeLines(&text, escaped(QString::fromStdString(hosts[host])).toUtf8() + ": ", true));
    };
    return endOfHosts(hosts, workOnEachHost(hosts, work, withName));
}

} // namespace corv::ctl
