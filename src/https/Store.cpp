#include "https/Store.h"

#include "common/AtomicFile.h"
#include "common/HttpsFiles.h"
#include "common/HttpsOptions.h"

#include <QDeadlineTimer>

#include <cstdio>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr auto kLockFile = "/run/corvane/https/lock";
constexpr int kLockMilliseconds = 15000;
constexpr useconds_t kLockPause = 20000;
constexpr qsizetype kLargestLive = qsizetype{64} * 1024 * 1024;
constexpr qsizetype kLargestState = qsizetype{16} * 1024 * 1024;

} // namespace

void say(const QString &sentence)
{
    const QByteArray line = "corv-https: " + sentence.toUtf8().replace('\n', ' ') + '\n';
    (void)writeAll(STDERR_FILENO, line);
}

Fd takeLock()
{
    Fd file(::open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    const QDeadlineTimer deadline(kLockMilliseconds);
    while (file && ::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (deadline.hasExpired())
            return {};
        ::usleep(kLockPause);
    }
    return file;
}

State loadState()
{
    return parseState(readWhole(QString::fromLatin1(kStateFile), kLargestState).value_or(QByteArray()));
}

void saveState(const State &state)
{
    if (!replaceFile(QString::fromLatin1(kStateFile), stateText(state), 0644))
        say(u"cannot write %1"_s.arg(QLatin1StringView(kStateFile)));
}

std::optional<QByteArray> readLive()
{
    return readWhole(QString::fromLatin1(kLiveFile), kLargestLive);
}

} // namespace corv::https
