#include "agent/hosting/Leftovers.h"

#include "agent/hosting/SharedMemory.h"
#include "common/Account.h"
#include "common/Fd.h"
#include "common/Pool.h"
#include "common/Tree.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <array>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <utility>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

constexpr int kSearchMs = 5'000;            // in each place
constexpr qint64 kLargestCopy = 67'108'864; // bytes
constexpr qsizetype kCopyBytes = 65'536;
constexpr qsizetype kKeptNameBytes = 200;
constexpr mode_t kOwnFile = 0600;
constexpr mode_t kOwnFolder = 0700;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
// Well within what userdel manages: paths of PATH_MAX (4,096) bytes, and a descriptor or two a level of 1,024.
constexpr std::size_t kDeepLevels = 128;
constexpr std::size_t kDeepBytes = 2'048;

const auto kBackups = u"/var/backups/corvane"_s;

// Where all users may leave files, or services leave files of theirs.
QStringList sharedPlaces(uid_t user)
{
    // What others start from comes first, and those that anybody can fill last.
    const QStringList all = {u"/var/spool"_s,  u"/dev/mqueue"_s, u"/run/user/%1"_s.arg(user),
                             u"/run/screen"_s, u"/run/lock"_s,   u"/var/crash"_s,
                             u"/dev/shm"_s,    u"/var/tmp"_s,    u"/tmp"_s};
    QStringList places;
    for (const QString &place : all) {
        // Some are links on some servers, to another of them perhaps. They are root's: to follow them is safe.
        const QString path = QFileInfo(place).canonicalFilePath();
        if (!path.isEmpty() && !places.contains(path))
            places.append(path);
    }
    return places;
}

// What belongs to a user by its name alone.
QStringList namedFiles(const QString &user)
{
    return {u"/var/spool/cron/crontabs/"_s + user, u"/var/lib/systemd/linger/"_s + user, u"/var/mail/"_s + user};
}

using Disposal = std::function<void(int folder, const char *name, bool isFolder)>;

// Calls the disposal with whatever in the shared places belongs to the user, with folders after what they hold. Between
// the look at an entry and its disposal only somebody who may do the same there himself could put another in its place.
void disposeOfFiles(uid_t user, const Disposal &dispose)
{
    QDeadlineTimer deadline;
    const WalkLimits limits = {true, [&] { return !deadline.hasExpired(); }};
    const auto visit = [&](int folder, const char *name, bool isFolder) {
        struct stat status = {};
        if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && status.st_uid == user)
            dispose(folder, name, isFolder);
        return true;
    };
    const EntryVisitor onFile = [&](int folder, const char *name) { return visit(folder, name, false); };
    const EntryVisitor onFolder = [&](int folder, const char *name) { return visit(folder, name, true); };
    for (const QString &place : sharedPlaces(user)) {
        deadline.setRemainingTime(kSearchMs);
        (void)walkTree(AT_FDCWD, QFile::encodeName(place).constData(), onFile, onFolder, onFolder, limits);
    }
}

QString now()
{
    return QDateTime::currentDateTime().toString(u"yyyyMMdd-HHmmss"_s);
}

bool copyBytes(int from, int to)
{
    for (;;) {
        QByteArray buffer(kCopyBytes, Qt::Uninitialized);
        const ssize_t count = ::read(from, buffer.data(), static_cast<std::size_t>(buffer.size()));
        if (count <= 0)
            return count == 0;
        if (!writeAll(to, buffer.first(count)))
            return false;
    }
}

// A new folder in the backups' one for what is set aside, made when the first thing comes.
class Aside
{
public:
    explicit Aside(QString user) : m_user(std::move(user)) {}

    // Moves an entry of that owner's there, where nobody but root reaches it. What cannot be moved to another file
    // system stays: it then belongs to root.
    void take(int folder, const char *name, uid_t owner)
    {
        if (!open())
            return;
        const QByteArray newName =
            QByteArray::number(++m_count) + '-' +
            QByteArray(name).first(std::min(static_cast<qsizetype>(qstrlen(name)), kKeptNameBytes));
        if (::renameat2(folder, name, m_folder.get(), newName.constData(), RENAME_NOREPLACE) == 0) {
            own(m_folder.get(), newName.constData(), owner);
            return;
        }
        copy(folder, name, owner, newName);
        own(folder, name, owner);
    }

private:
    bool open()
    {
        if (m_folder)
            return true;
        const QByteArray path = QFile::encodeName(u"%1/%2-%3-former"_s.arg(kBackups, m_user, now()));
        if (QDir().mkpath(kBackups))
            (void)::chmod(QFile::encodeName(kBackups).constData(), kOwnFolder);
        (void)::mkdir(path.constData(), kOwnFolder);
        m_folder = Fd(::open(path.constData(), kFolderFlags | O_NOFOLLOW));
        return static_cast<bool>(m_folder);
    }

    // Gives an entry to root, if it is still that owner's: another may have been put in its place, a second name of
    // somebody's file even. The change takes the set-user-ID bit away.
    static void own(int folder, const char *name, uid_t owner)
    {
        const Fd entry(::openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat status = {};
        if (!entry || ::fstat(entry.get(), &status) != 0 || status.st_uid != owner ||
            ::fchownat(entry.get(), "", 0, 0, AT_EMPTY_PATH) != 0 || S_ISLNK(status.st_mode))
            return;
        const QByteArray path = "/proc/self/fd/" + QByteArray::number(entry.get());
        (void)::chmod(path.constData(), S_ISDIR(status.st_mode) ? kOwnFolder : kOwnFile);
    }

    // In place of a move, where the backups have a file system of their own.
    void copy(int folder, const char *name, uid_t owner, const QByteArray &newName)
    {
        const Fd from(::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat status = {};
        if (!from || ::fstat(from.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != owner ||
            status.st_size > kLargestCopy)
            return;
        const Fd to(::openat(m_folder.get(), newName.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kOwnFile));
        if (to && copyBytes(from.get(), to.get()))
            (void)::unlinkat(folder, name, 0);
    }

    QString m_user;
    Fd m_folder;
    int m_count = 0;
};

// Sets a file aside by its path, whose folders are root's.
void takePath(Aside *aside, const QString &path)
{
    const QFileInfo file(path);
    struct stat status = {};
    const Fd folder(::open(QFile::encodeName(file.path()).constData(), kFolderFlags));
    const QByteArray name = QFile::encodeName(file.fileName());
    if (folder && ::fstatat(folder.get(), name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        !S_ISDIR(status.st_mode))
        aside->take(folder.get(), name.constData(), status.st_uid);
}

// A home that belongs to nobody who is a user now is what a former owner of the name has left, keys and all. It is
// renamed within its file system where it cannot be moved: whole homes are not copied.
void takeFormerHome(Aside *aside, const QString &user)
{
    const Fd homes(::open("/home", kFolderFlags));
    const QByteArray name = QFile::encodeName(user);
    struct stat status = {};
    if (!homes || ::fstatat(homes.get(), name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISDIR(status.st_mode))
        return;
    if (::getpwuid(status.st_uid) && !formerIds().users.contains(status.st_uid))
        return;

    aside->take(homes.get(), name.constData(), status.st_uid);
    const QByteArray hidden = QFile::encodeName(u".former-%1-%2"_s.arg(user, now()));
    (void)::renameat2(homes.get(), name.constData(), homes.get(), hidden.constData(), RENAME_NOREPLACE);
}

} // namespace

void removeLeftovers(const QString &user, const Ids &ids)
{
    for (const QString &path : namedFiles(user))
        (void)::unlink(QFile::encodeName(path).constData());
    disposeOfFiles(ids.user, [](int folder, const char *name, bool isFolder) {
        (void)::unlinkat(folder, name, isFolder ? AT_REMOVEDIR : 0);
    });
    removeSystemVObjects(ids.user);
}

void setAsideFormerOwner(const QString &user)
{
    Aside aside(user);
    for (const QString &path : namedFiles(user))
        takePath(&aside, path);
    for (const QString &php : phpVersions()) {
        takePath(&aside, parkedPoolPath(php, user));
        if (php != phpVersion())
            takePath(&aside, poolPath(php, user));
    }
    takeFormerHome(&aside, user);
}

void setAsideFormerFiles(const QString &user, const Ids &ids)
{
    Aside aside(user);
    disposeOfFiles(ids.user, [&](int folder, const char *name, bool isFolder) {
        if (isFolder)
            (void)::unlinkat(folder, name, AT_REMOVEDIR);
        else
            aside.take(folder, name, ids.user);
    });
    removeSystemVObjects(ids.user);
}

void removeHome(const QString &user, const Ids &ids)
{
    const Fd homes(::open("/home", kFolderFlags));
    const QByteArray name = QFile::encodeName(user);
    struct stat status = {};
    if (homes && ::fstatat(homes.get(), name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISDIR(status.st_mode) && status.st_uid == ids.user)
        (void)removeTree(homes.get(), name.constData());
}

void removeDeepFolders(const QString &user)
{
    const Fd homes(::open("/home", kFolderFlags));
    const QByteArray name = QFile::encodeName(user);
    struct stat status = {};
    if (homes && ::fstatat(homes.get(), name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode))
        (void)removeDeep(homes.get(), name.constData(), kDeepLevels, kDeepBytes);
}

} // namespace corv::hosting
