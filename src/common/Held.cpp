#include "common/Held.h"

#include "common/FolderStream.h"

#include <QByteArray>
#include <QFile>
#include <QString>

#include <algorithm>
#include <array>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

// Where the kernel waits for the other end of a FIFO that is being opened.
constexpr auto kFifoOpen = "wait_for_partner";
// Nothing of ours starts that many programs below each other.
constexpr int kMaxDepth = 16;
constexpr qsizetype kLinkStart = 16;

QByteArray procFile(pid_t process, const QString &name)
{
    QFile file(u"/proc/%1/%2"_s.arg(QString::number(process), name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The first word behind "KEY:\t" in the text of a status file.
QByteArray statusWord(const QByteArray &status, const char *key)
{
    const QByteArray start = QByteArray("\n") + key + ":\t";
    const qsizetype found = status.indexOf(start);
    if (found < 0)
        return {};
    const QByteArray rest = status.mid(found + start.size());
    return rest.left(rest.indexOf('\n')).split('\t').constFirst();
}

bool isRoots(const QByteArray &status)
{
    return statusWord(status, "Uid") == "0";
}

// An administrator's strace is not in the way.
bool isTracedByUser(const QByteArray &status)
{
    const pid_t tracer = statusWord(status, "TracerPid").toInt();
    return tracer > 0 && !isRoots(procFile(tracer, u"status"_s));
}

// Whether one of its descriptors is a FIFO with a name; a pipe has none.
bool hasFifoOpen(pid_t process)
{
    const FolderStream descriptors(::opendir(QFile::encodeName(u"/proc/%1/fd"_s.arg(process)).constData()));
    while (const dirent *entry = descriptors ? ::readdir(descriptors.get()) : nullptr) {
        struct stat status = {};
        std::array<char, kLinkStart> target = {};
        const int folder = ::dirfd(descriptors.get());
        if (::fstatat(folder, entry->d_name, &status, 0) == 0 && S_ISFIFO(status.st_mode) &&
            ::readlinkat(folder, entry->d_name, target.data(), target.size()) > 0 && target.front() == '/')
            return true;
    }
    return false;
}

bool isHeldItself(pid_t process)
{
    const QByteArray status = procFile(process, u"status"_s);
    if (status.isEmpty() || isRoots(status))
        return false;
    return statusWord(status, "State").startsWith('T') || isTracedByUser(status) ||
           procFile(process, u"wchan"_s) == kFifoOpen || hasFifoOpen(process);
}

bool isHeldBelow(pid_t process, int depth)
{
    if (isHeldItself(process))
        return true;
    const QList<QByteArray> children = procFile(process, u"task/%1/children"_s.arg(process)).trimmed().split(' ');
    return depth < kMaxDepth && std::any_of(children.cbegin(), children.cend(), [depth](const QByteArray &child) {
               return child.toInt() > 0 && isHeldBelow(child.toInt(), depth + 1);
           });
}

} // namespace

bool isHeld(pid_t process)
{
    return isHeldBelow(process, 0);
}

} // namespace corv
