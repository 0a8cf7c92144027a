#include "https/Store.h"

#include "common/AtomicFile.h"
#include "common/HttpsFiles.h"
#include "common/HttpsOptions.h"
#include "common/Paths.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QThread>

#include <algorithm>
#include <cstdio>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr auto kLockFile = "/run/corvane/https/lock";
constexpr unsigned long kLockPauseMs = 20;
constexpr qsizetype kLargestLive = qsizetype{64} * 1024 * 1024;
// A day is the longest of them.
constexpr qint64 kLongestPause = 86400;

} // namespace

void say(const QString &sentence)
{
    const QByteArray line = "corv-https: " + sentence.toUtf8().replace('\n', ' ') + '\n';
    (void)writeAll(STDERR_FILENO, line);
}

Fd takeLock(int milliseconds)
{
    Fd file(::open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    const QDeadlineTimer deadline(milliseconds);
    while (file && ::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (deadline.hasExpired())
            return {};
        QThread::msleep(kLockPauseMs);
    }
    return file;
}

void forgetFuture(State *state, qint64 now)
{
    const qint64 latest = now + kLongestPause;
    for (NameState &name : state->names) {
        if (name.nextAt > latest)
            name.nextAt = 0;
    }
    for (OrderState &order : state->orders) {
        if (order.nextAt > latest)
            order.nextAt = 0;
        if (order.failedAt > now)
            order.failedAt = 0;
        order.startedAt = std::min(order.startedAt, now);
    }
    if (state->rescuedUntil > latest)
        state->rescuedUntil = 0;
}

State loadState()
{
    const QString path = QString::fromLatin1(kStateFile);
    const std::optional<QByteArray> bytes = readWhole(path, kLargestState);
    if (!(bytes && holdsState(*bytes)) && exists(path))
        say(u"%1 cannot be used; where names lead, and the pauses of orders, are not known any more"_s.arg(path));
    State state = parseState(bytes.value_or(QByteArray()));
    forgetFuture(&state, QDateTime::currentSecsSinceEpoch());
    return state;
}

void saveState(const State &state)
{
    const QByteArray text = stateText(state);
    // One that nobody reads again would be worse than that of before.
    if (text.size() > kLargestState || !replaceFile(QString::fromLatin1(kStateFile), text, 0644))
        say(u"cannot write %1"_s.arg(QLatin1StringView(kStateFile)));
}

std::optional<QByteArray> readLive()
{
    return readWhole(QString::fromLatin1(kLiveFile), kLargestLive);
}

} // namespace corv::https
