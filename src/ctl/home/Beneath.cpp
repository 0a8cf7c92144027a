#include "ctl/home/Beneath.h"

#include <QList>

#include <fcntl.h>
#include <sys/stat.h>

namespace corv::ctl {
namespace {

constexpr int kFolderFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t kFileBits = S_IRWXU | S_IRWXG | S_IRWXO;
constexpr mode_t kAllBits = kFileBits | S_ISUID | S_ISGID | S_ISVTX;
constexpr mode_t kFolderBits = kFileBits | S_ISGID | S_ISVTX;

} // namespace

QByteArray insidePath(const QByteArray &path)
{
    if (path.startsWith('/') || path.contains('\0'))
        return {};
    QList<QByteArray> names;
    for (const QByteArray &name : path.split('/')) {
        if (name == "..")
            return {};
        if (!name.isEmpty() && name != ".")
            names.append(name);
    }
    return names.join('/');
}

QByteArray parentOf(const QByteArray &path)
{
    const qsizetype slash = path.lastIndexOf('/');
    return slash < 0 ? QByteArray() : path.first(slash);
}

QByteArray nameOf(const QByteArray &path)
{
    return path.sliced(path.lastIndexOf('/') + 1);
}

Fd openBeneath(int folder, const QByteArray &path)
{
    Fd open(::openat(folder, ".", kFolderFlags));
    if (path.isEmpty())
        return open;
    for (const QByteArray &name : path.split('/')) {
        Fd next(::openat(open.get(), name.constData(), kFolderFlags));
        open = std::move(next);
        if (!open)
            return {};
    }
    return open;
}

bool setAccess(int folder, const QByteArray &name, gid_t group, mode_t mode)
{
    const Fd entry(::openat(folder, name.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!entry || ::fstat(entry.get(), &status) != 0 || status.st_uid != ::geteuid())
        return false;
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))
        return false;
    const bool isFolder = S_ISDIR(status.st_mode);
    const mode_t wanted = mode & (isFolder ? kFolderBits : kFileBits);
    const bool isGiven = group != static_cast<gid_t>(-1) && group != status.st_gid;
    // Of a large home most is as it should be.
    if (!isGiven && (status.st_mode & kAllBits) == wanted)
        return true;
    if (isGiven && ::fchownat(entry.get(), "", static_cast<uid_t>(-1), group, AT_EMPTY_PATH) != 0)
        return false;
    // The descriptor leads to what was looked at, whatever has that name by now.
    const QByteArray self = "/proc/self/fd/" + QByteArray::number(entry.get());
    return ::chmod(self.constData(), wanted) == 0;
}

bool giveLink(int folder, const QByteArray &name, gid_t group)
{
    const Fd entry(::openat(folder, name.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    return entry && ::fstat(entry.get(), &status) == 0 && S_ISLNK(status.st_mode) && status.st_uid == ::geteuid() &&
           ::fchownat(entry.get(), "", static_cast<uid_t>(-1), group, AT_EMPTY_PATH) == 0;
}

} // namespace corv::ctl
