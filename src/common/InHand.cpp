#include "common/InHand.h"

#include "common/Fd.h"
#include "common/Json.h"

#include <QList>

#include <algorithm>
#include <array>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

constexpr qsizetype kLongest = 4096;

// What can be had of a file in one read; a FIFO or a device in its place gives nothing.
QByteArray contentOf(const char *path)
{
    const Fd file(::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return {};
    std::array<char, kLongest> buffer = {};
    const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
    return {buffer.data(), std::max<ssize_t>(count, 0)};
}

} // namespace

QByteArray inHandLine(const InHand &request)
{
    QJsonObject object = {{u"command"_s, request.command},
                          {u"uid"_s, request.uid},
                          {u"began"_s, request.began},
                          {u"agent"_s, static_cast<qint64>(request.agent)},
                          {u"agentBegan"_s, request.agentBegan}};
    if (!request.account.isEmpty())
        object.insert(u"account"_s, request.account);
    return compactJson(object) + '\n';
}

std::optional<InHand> readInHand(const char *path)
{
    const QJsonObject object = parseObject(contentOf(path));
    const InHand request = {object.value("command"_L1).toString(),
                            object.value("account"_L1).toString(),
                            object.value("uid"_L1).toInteger(-1),
                            object.value("began"_L1).toInteger(-1),
                            static_cast<pid_t>(object.value("agent"_L1).toInteger(-1)),
                            object.value("agentBegan"_L1).toInteger(-1)};
    const bool isWhole = !request.command.isEmpty() && request.uid >= 0 && request.began >= 0 && request.agent > 0;
    if (!isWhole || request.agentBegan < 0 || processBegan(request.agent) != request.agentBegan)
        return {};
    return request;
}

qint64 bootMilliseconds()
{
    timespec now = {};
    (void)::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<qint64>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

qint64 processBegan(pid_t process)
{
    const QByteArray status = contentOf(("/proc/" + QByteArray::number(process) + "/stat").constData());
    // The name before these fields may hold blanks and parentheses.
    const QList<QByteArray> fields = status.mid(status.lastIndexOf(')') + 2).split(' ');
    bool isNumber = false;
    const qint64 ticks = fields.value(19).toLongLong(&isNumber);
    return isNumber ? ticks : -1;
}

} // namespace corv
