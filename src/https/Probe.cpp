#include "https/Probe.h"

#include "common/AtomicFile.h"
#include "common/Fd.h"
#include "common/HttpsOptions.h"
#include "https/Addresses.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QRandomGenerator>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <new>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

// Processes that ask at a time: waiting for name servers is most of it.
constexpr int kAtATime = 16;
constexpr int kAnswerMilliseconds = 5000;
constexpr int kNameMilliseconds = 10000;
constexpr std::size_t kMostAddresses = 16;
constexpr int kTrustedMisses = 3;
constexpr qint64 kFirstPause = 300;
constexpr qint64 kLongestPause = 21600;
constexpr qint64 kGoodPause = 86400;
constexpr int kMostMisses = 20;

QByteArray makeToken()
{
    QByteArray bytes(16, Qt::Uninitialized);
    for (char &byte : bytes)
        byte = static_cast<char>(QRandomGenerator::system()->bounded(256));
    return bytes.toHex();
}

Probed probeOne(const QString &name, const QByteArray &token)
{
    const Addresses addresses = addressesOf(name);
    if (addresses.list.empty())
        return {false, addresses.problem};
    // Who has a name chooses its addresses and how slowly they answer, and others wait.
    if (addresses.list.size() > kMostAddresses)
        return {false, u"it has more than %1 addresses"_s.arg(kMostAddresses)};
    const QByteArray request = "GET /.well-known/corv-probe/" + token + " HTTP/1.1\r\nHost: " + name.toLatin1() +
                               "\r\nUser-Agent: corv-https\r\nConnection: close\r\n\r\n";
    const QDeadlineTimer deadline(kNameMilliseconds);
    for (const Address &address : addresses.list) {
        const auto time = static_cast<int>(std::min<qint64>(deadline.remainingTime(), kAnswerMilliseconds));
        const std::optional<QByteArray> answer = askAddress(address, request, time);
        if (!answer)
            return {false, u"%1 does not answer on port 80"_s.arg(address.text)};
        if (!isAnswer(*answer, token))
            return {false, u"%1 is not this server"_s.arg(address.text)};
    }
    return {true, {}};
}

// Asks names as long as there are any, next being the place of the first that nobody has taken yet, and tells what came
// of each, a line each. A name that takes its time so keeps one process, and no other name.
[[noreturn]] void probeSome(const QStringList &names, std::atomic<qsizetype> *next, const QByteArray &token, int output)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (qsizetype place = next->fetch_add(1); place < names.size(); place = next->fetch_add(1)) {
        const Probed probed = probeOne(names.at(place), token);
        const QByteArray line = names.at(place).toUtf8() + '\t' + probed.said.toUtf8() + '\n';
        if (!writeAll(output, line)) // in one piece: shorter than a pipe's atomic size
            break;
    }
    ::_exit(0);
}

QMap<QString, Probed> parseLines(const QByteArray &lines)
{
    QMap<QString, Probed> probed;
    for (const QByteArray &line : lines.split('\n')) {
        const qsizetype tab = line.indexOf('\t');
        if (tab > 0)
            probed.insert(QString::fromUtf8(line.first(tab)),
                          {tab + 1 == line.size(), QString::fromUtf8(line.sliced(tab + 1))});
    }
    return probed;
}

// All that comes through a pipe until its last writer ends or the time is over.
QByteArray readAll(int input, int milliseconds)
{
    const QDeadlineTimer deadline(milliseconds);
    QByteArray text;
    while (!deadline.hasExpired()) {
        pollfd waiting{input, POLLIN, 0};
        if (::poll(&waiting, 1, static_cast<int>(deadline.remainingTime())) <= 0)
            continue;
        char bytes[4096];
        const ssize_t count = ::read(input, bytes, sizeof bytes);
        if (count <= 0)
            break;
        text.append(bytes, count);
    }
    return text;
}

} // namespace

bool isAnswer(const QByteArray &answer, const QByteArray &token)
{
    const qsizetype end = answer.indexOf("\r\n\r\n");
    const bool isGood = answer.startsWith("HTTP/1.1 200 ") || answer.startsWith("HTTP/1.0 200 ");
    return isGood && end > 0 && answer.sliced(end + 4).trimmed() == token;
}

QMap<QString, Probed> probe(const QStringList &names, int milliseconds)
{
    const QByteArray token = makeToken();
    const QString path = u"%1/%2"_s.arg(QLatin1StringView(kProbeFolder), QString::fromLatin1(token));
    int ends[2] = {-1, -1};
    void *shared =
        ::mmap(nullptr, sizeof(std::atomic<qsizetype>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (names.isEmpty() || shared == MAP_FAILED || !replaceFile(path, token, 0644) || ::pipe2(ends, O_CLOEXEC) != 0)
        return {};
    auto *next = new (shared) std::atomic<qsizetype>(0);
    const Fd input(ends[0]);
    Fd output(ends[1]);
    std::vector<pid_t> children;
    for (int count = 0; count < kAtATime && count < names.size(); ++count) {
        const pid_t child = ::fork();
        if (child == 0)
            probeSome(names, next, token, output.get());
        if (child > 0)
            children.push_back(child);
    }
    output.reset();
    const QByteArray lines = readAll(input.get(), milliseconds);
    for (const pid_t child : children) {
        (void)::kill(child, SIGKILL); // most have ended
        (void)::waitpid(child, nullptr, 0);
    }
    (void)::munmap(shared, sizeof *next);
    QFile::remove(path);
    return parseLines(lines);
}

NameState after(const NameState &before, const Probed &probed, qint64 now)
{
    if (probed.leadsHere)
        return {true, {}, now, now + kGoodPause, 0};
    const int misses = std::min(before.misses + 1, kMostMisses);
    const qint64 pause = std::min(kFirstPause << (misses - 1), kLongestPause);
    return {before.leadsHere && misses < kTrustedMisses, probed.said, now, now + pause, misses};
}

} // namespace corv::https
