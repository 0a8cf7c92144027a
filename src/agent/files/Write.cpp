#include "agent/files/Copy.h"
#include "agent/files/Operations.h"
#include "common/Fd.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::files {
namespace {

constexpr qint64 kNoLimit = std::numeric_limits<qint64>::max() - 1;
constexpr int kMaxLinks = 40;         // as the system's own limit
constexpr mode_t kNewFileMode = 0666; // less the process's mask
constexpr mode_t kPermissionBits = 0777;
constexpr mode_t kOwnerBits = 0600;
constexpr qsizetype kRandomBytes = 8;
constexpr auto kOwnDescriptors = "/proc/self/fd";

Reply systemFailure()
{
    return fail(QString::fromUtf8(std::strerror(errno)));
}

// A hidden name that nobody can have put into the way.
QByteArray temporaryName()
{
    QByteArray bytes(kRandomBytes, '\0');
    if (::getrandom(bytes.data(), kRandomBytes, 0) != kRandomBytes)
        return {};
    return ".corv-" + bytes.toHex();
}

// The path that a write to path is meant for: that of the file which a link names, whether it is there or not. Nothing,
// with errno set, when links lead in a circle.
std::optional<QByteArray> behindLinks(QByteArray path)
{
    for (int i = 0; i < kMaxLinks; ++i) {
        std::array<char, PATH_MAX> text; // NOLINT(cppcoreguidelines-pro-type-member-init): filled by readlink
        const ssize_t length = ::readlink(path.constData(), text.data(), text.size());
        if (length < 0)
            return path; // no link, or what opening it will find out
        const QByteArray link(text.data(), length);
        path = link.startsWith('/') ? link : path.left(path.lastIndexOf('/') + 1) + link;
    }
    errno = ELOOP;
    return {};
}

// A file of a folder that appears under its name only when it is complete, in the place of what had the name. Until
// then it has no name at all, where the file system can do that, so that nothing of it stays even if the process is
// killed.
class NewFile
{
public:
    NewFile(int folder, mode_t mode) : m_folder(folder)
    {
        // Its name is given through /proc.
        const bool mayBeNameless = ::access(kOwnDescriptors, F_OK) == 0;
        if (mayBeNameless)
            m_file = Fd(::openat(folder, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode));
        const bool isSupported = errno != EOPNOTSUPP && errno != EISDIR && errno != ENOENT && errno != EINVAL;
        if (m_file || (mayBeNameless && isSupported))
            return;
        m_name = temporaryName();
        m_file = Fd(::openat(folder, m_name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
        if (!m_file)
            m_name.clear();
    }
    NewFile(const NewFile &) = delete;
    NewFile(NewFile &&) = delete;
    NewFile &operator=(const NewFile &) = delete;
    NewFile &operator=(NewFile &&) = delete;
    ~NewFile()
    {
        if (!m_name.isEmpty())
            (void)::unlinkat(m_folder, m_name.constData(), 0);
    }

    [[nodiscard]] int get() const
    {
        return m_file.get();
    }

    // False, with errno set, when it cannot take the name.
    bool publish(const QByteArray &name)
    {
        if (m_name.isEmpty() && !giveName())
            return false;
        if (::renameat(m_folder, m_name.constData(), m_folder, name.constData()) != 0)
            return false;
        m_name.clear();
        return true;
    }

private:
    // Only a rename replaces what is there, and only what has a name can be renamed.
    bool giveName()
    {
        const QByteArray name = temporaryName();
        const QByteArray self = QByteArray(kOwnDescriptors) + '/' + QByteArray::number(m_file.get());
        if (::linkat(AT_FDCWD, self.constData(), m_folder, name.constData(), AT_SYMLINK_FOLLOW) != 0)
            return false;
        m_name = name;
        return true;
    }

    int m_folder;
    Fd m_file;
    QByteArray m_name; // the temporary one, where it has one
};

// Gives the new file what the replaced one had, as far as its user may: pages stay readable to the web server. The
// group comes first: changing it takes mode bits away.
bool keepAttributes(int file, const struct stat &old)
{
    struct stat made = {};
    if (::fstat(file, &made) != 0)
        return false;
    if (made.st_gid != old.st_gid)
        (void)!::fchown(file, static_cast<uid_t>(-1), old.st_gid); // only for members of that group
    return ::fchmod(file, old.st_mode & kPermissionBits) == 0;
}

} // namespace

Reply write(const QByteArray &path)
{
    struct stat status = {};
    if (::stat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode))
        return fail(u"a folder has that name"_s);

    const std::optional<QByteArray> target = behindLinks(path);
    if (!target)
        return systemFailure();
    const qsizetype slash = target->lastIndexOf('/');
    const QByteArray name = target->mid(slash + 1);
    // Writing to a folder takes no right to read it.
    const Fd folder(::open(target->left(slash + 1).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        return systemFailure();

    struct stat old = {};
    const bool replaces =
        ::fstatat(folder.get(), name.constData(), &old, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(old.st_mode);
    // A replaced file needs no right to write to it, but whoever protects a file means it.
    if (replaces && ::faccessat(folder.get(), name.constData(), W_OK, AT_EACCESS) != 0)
        return systemFailure();

    // Nobody may read in the new file, while it is filled, what the old one's mode kept from them.
    NewFile file(folder.get(), replaces ? old.st_mode & kOwnerBits : kNewFileMode);
    if (file.get() < 0)
        return systemFailure();
    const std::optional<qint64> size = copyAll(STDIN_FILENO, file.get(), kNoLimit);
    if (!size || (replaces && !keepAttributes(file.get(), old)) || !file.publish(name))
        return systemFailure();
    return {{u"ok"_s, true}, {u"size"_s, *size}};
}

} // namespace corv::files
