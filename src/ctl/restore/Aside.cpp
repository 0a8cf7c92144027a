#include "ctl/restore/Aside.h"

#include "common/Account.h"
#include "common/Fd.h"
#include "common/Tree.h"
#include "ctl/home/Archive.h"
#include "ctl/home/Rights.h"

#include <QDateTime>
#include <QDir>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kAsideMs = 600'000;
constexpr mode_t kFolderMode = 0700;
constexpr auto kKept = "kept";
constexpr auto kLogs = "logs"; // what the services write there is nobody's work

bool isNewer(int folder, const char *name, qint64 made)
{
    struct stat status = {};
    return ::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(status.st_mode) &&
           status.st_ctime > made;
}

bool holdsNewer(int home, const char *name, qint64 made)
{
    struct stat status = {};
    if (::fstatat(home, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    if (!S_ISDIR(status.st_mode))
        return isNewer(home, name, made);
    bool isFound = false;
    WalkLimits limits;
    limits.goesOn = [&isFound] { return !isFound; };
    const bool isRead = walkTree(
        home, name,
        [&isFound, made](int folder, const char *entry) {
            isFound = isFound || isNewer(folder, entry, made);
            return true;
        },
        [](int, const char *) { return true; }, {}, limits);
    return isFound || !isRead; // what cannot be looked at is kept
}

// The entries of a home that an unpacking replaces or removes.
QList<QByteArray> replacedBy(const QList<ArchiveEntry> &entries)
{
    QList<QByteArray> names;
    for (const ArchiveEntry &entry : entries) {
        if (!entry.path.contains('/'))
            names.append(entry.path);
    }
    for (const QString &name : QDir(u"/etc/skel"_s).entryList(QDir::Files | QDir::Hidden)) {
        if (!names.contains(QFile::encodeName(name)))
            names.append(QFile::encodeName(name));
    }
    return names;
}

} // namespace

QByteArray setAsideHere(const QByteArray &home, const QList<QByteArray> &names, const QByteArray &folder, qint64 made)
{
    const Fd here(::open(home.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!here)
        return std::strerror(errno);
    if (std::none_of(names.cbegin(), names.cend(), [&here, made](const QByteArray &name) {
            return name != kLogs && holdsNewer(here.get(), name.constData(), made);
        }))
        return {};
    if (::mkdirat(here.get(), folder.constData(), kFolderMode) != 0)
        return std::strerror(errno);
    const Fd aside(::openat(here.get(), folder.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    for (const QByteArray &name : names) {
        if (::renameat(here.get(), name.constData(), aside.get(), name.constData()) != 0 && errno != ENOENT)
            return name + ": " + std::strerror(errno);
    }
    return kKept;
}

SetAside setAside(const Source &source, const QString &account, qint64 made)
{
    SetAside done;
    const std::optional<Rights> rights = accountRights(account);
    if (!rights)
        return {{}, u"there is no user %1, or no group www-data"_s.arg(account)};
    const QList<QByteArray> names = replacedBy(readArchive(source.home, source.account, {}, &done.problem));
    if (!done.problem.isEmpty())
        return done;
    const QString folder = u"replaced-"_s + QDateTime::currentDateTime().toString(u"yyyy-MM-dd_HHmmss"_s);
    const QByteArray home = QFile::encodeName(hosting::homePath(account));
    const Work work =
        workAs(*rights, kAsideMs, [&] { return setAsideHere(home, names, QFile::encodeName(folder), made); });
    if (work.problem.isEmpty() && work.said == kKept)
        done.folder = folder;
    else if (!work.problem.isEmpty() || !work.said.isEmpty())
        done.problem = u"what is in the home cannot be kept: %1"_s.arg(
            work.problem.isEmpty() ? QString::fromUtf8(work.said) : work.problem);
    return done;
}

} // namespace corv::ctl
