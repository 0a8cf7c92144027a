#include "common/Stuck.h"

#include "common/Fd.h"

#include <QFile>
#include <QList>
#include <QString>

#include <csignal>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

const auto kGroups = u"/sys/fs/cgroup"_s;
const auto kProcesses = u"/cgroup.procs"_s;

// A group of no service that can be stopped. It is there wherever systemd is, in containers, too, where the topmost one
// takes no processes.
const auto kElsewhere = u"/init.scope"_s;

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray valueOf(const QByteArray &status, const QByteArray &key)
{
    for (const QByteArray &line : status.split('\n')) {
        if (line.startsWith(key + ':'))
            return line.mid(key.size() + 1).trimmed();
    }
    return {};
}

// Whether SIGKILL waits in a set of signals, in hexadecimal digits.
bool holdsKill(const QByteArray &set)
{
    constexpr int kHexadecimal = 16;
    return ((set.toULongLong(nullptr, kHexadecimal) >> (SIGKILL - 1)) & 1U) != 0;
}

// The group that this process is in, below the topmost one; empty where the kernel has none of the present kind.
QString ownGroup()
{
    for (const QByteArray &line : contentOf(u"/proc/self/cgroup"_s).split('\n')) {
        if (line.startsWith("0::/") && !line.contains(".."))
            return QFile::decodeName(line.mid(3));
    }
    return {};
}

} // namespace

bool isKilledButStuck(const QByteArray &status)
{
    return valueOf(status, "State").startsWith('D') &&
           (holdsKill(valueOf(status, "SigPnd")) || holdsKill(valueOf(status, "ShdPnd")));
}

void leaveStuck()
{
    const QString group = ownGroup();
    if (group.isEmpty() || group == kElsewhere)
        return;
    const Fd elsewhere(::open(QFile::encodeName(kGroups + kElsewhere + kProcesses).constData(), O_WRONLY | O_CLOEXEC));
    if (!elsewhere)
        return;
    for (const QByteArray &number : contentOf(kGroups + group + kProcesses).split('\n')) {
        if (isKilledButStuck(contentOf(u"/proc/%1/status"_s.arg(QLatin1StringView(number)))))
            (void)writeAll(elsewhere.get(), number);
    }
}

} // namespace corv
