#include "ctl/home/Reach.h"

#include "common/Tree.h"
#include "ctl/home/Beneath.h"

#include <QDataStream>
#include <QDeadlineTimer>
#include <QFile>
#include <QIODevice>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kLookMs = 2'000;
constexpr int kLookAllMs = 10'000; // with what a slow disk takes to answer at all
constexpr int kOpenMs = 600'000;
constexpr int kMostEntries = 20'000;
constexpr int kMostOfOne = 2'000;
constexpr auto kPages = "public_html";
constexpr int kFolderFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t kHomeMode = 0710;
constexpr mode_t kPagesMode = 02750;
constexpr mode_t kAccessBits = 0777;
constexpr mode_t kGroupReadsFolder = S_IRGRP | S_IXGRP;

// The path of an open folder.
QByteArray pathOf(int folder)
{
    std::array<char, PATH_MAX> path = {};
    const QByteArray self = "/proc/self/fd/" + QByteArray::number(folder);
    const ssize_t length = ::readlink(self.constData(), path.data(), path.size() - 1);
    return {path.data(), std::max<ssize_t>(length, 0)};
}

bool mayRead(int folder, const char *name, bool isFolder)
{
    return ::faccessat(folder, name, isFolder ? R_OK | X_OK : R_OK, AT_EACCESS) == 0;
}

// Whether a file or folder that cannot be read is meant for a group.
bool isMeantForGroup(const struct stat &status)
{
    if (S_ISDIR(status.st_mode))
        return (status.st_mode & kGroupReadsFolder) == kGroupReadsFolder;
    return S_ISREG(status.st_mode) && (status.st_mode & S_IRGRP) != 0;
}

// Looks at one account; rest is how many entries may still be looked at.
OutOfReach lookAtPages(int home, const QString &account, const QDeadlineTimer &deadline, int *rest)
{
    OutOfReach found = {account, OutOfReach::What::Below, 0, {}};
    int own = kMostOfOne;
    const WalkLimits limits = {true, [&] { return *rest > 0 && own > 0 && !deadline.hasExpired(); }};
    const auto visit = [&](int folder, const char *name) {
        --*rest;
        --own;
        struct stat status = {};
        if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !isMeantForGroup(status) ||
            mayRead(folder, name, S_ISDIR(status.st_mode)))
            return true;
        if (found.count++ == 0)
            found.first = pathOf(folder).mid(pathOf(home).size() + 1) + '/' + name;
        return true;
    };
    (void)walkTree(
        home, kPages, visit, [](int, const char *) { return true; }, visit, limits);
    return found;
}

QList<OutOfReach> look(const QStringList &accounts, const QString &homes)
{
    QList<OutOfReach> all;
    const QDeadlineTimer deadline(kLookMs);
    int rest = kMostEntries;
    for (const QString &account : accounts) {
        const QByteArray path = QFile::encodeName(homes + u'/' + account);
        const Fd home(::open(path.constData(), kFolderFlags));
        struct stat status = {};
        if (!home)
            continue; // that there is none is told elsewhere
        if (::fstatat(home.get(), kPages, &status, AT_SYMLINK_NOFOLLOW) != 0)
            all.append({account, errno == ENOENT ? OutOfReach::What::Missing : OutOfReach::What::Home, 0, {}});
        else if (S_ISLNK(status.st_mode))
            continue;
        else if (!mayRead(home.get(), kPages, true))
            all.append({account, OutOfReach::What::Pages, 0, {}});
        else if (const OutOfReach below = lookAtPages(home.get(), account, deadline, &rest); below.count > 0)
            all.append(below);
    }
    return all;
}

// Opens to the web server's group what is below public_html. Returns how many entries were changed.
int openPages(int home, gid_t web)
{
    int count = 0;
    const auto open = [&](int folder, const char *name) {
        struct stat status = {};
        if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            return true;
        const bool isFolder = S_ISDIR(status.st_mode);
        const mode_t mode = status.st_mode & ALLPERMS;
        const bool isLost = !isFolder && isMeantForGroup(status) && status.st_gid != web && (mode & S_IROTH) == 0;
        const bool isPassing = isFolder && (mode & S_IXGRP) != 0 && (status.st_gid != web || (mode & S_ISGID) == 0);
        if ((isLost || isPassing) && setAccess(folder, name, web, mode | (isFolder ? S_ISGID : 0)))
            ++count;
        return true;
    };
    (void)walkTree(home, kPages, open, open, open, {true, {}});
    return count;
}

QString openHome(const QByteArray &path, gid_t web, int *count)
{
    const auto reason = [] { return QString::fromLocal8Bit(std::strerror(errno)); }; // NOLINT(concurrency-mt-unsafe)
    const Fd home(::open(path.constData(), kFolderFlags));
    struct stat status = {};
    if (!home || ::fstat(home.get(), &status) != 0)
        return u"cannot open the home: "_s + reason();
    if (status.st_uid != ::geteuid())
        return u"the home is not the account's own"_s;
    const Fd homes(::open(parentOf(path).constData(), kFolderFlags));
    const bool isOpen = status.st_gid == web ? (status.st_mode & S_IXGRP) != 0 : (status.st_mode & S_IXOTH) != 0;
    if (!isOpen && !setAccess(homes.get(), nameOf(path), web, kHomeMode))
        return u"cannot open the home to the web server: "_s + reason();

    if (::fstatat(home.get(), kPages, &status, AT_SYMLINK_NOFOLLOW) != 0 && ::mkdirat(home.get(), kPages, S_IRWXU) != 0)
        return u"cannot make public_html: "_s + reason();
    (void)::fstatat(home.get(), kPages, &status, AT_SYMLINK_NOFOLLOW);
    if (!S_ISDIR(status.st_mode) || status.st_uid != ::geteuid())
        return u"public_html is no folder of the account's own"_s;
    if (!setAccess(home.get(), kPages, web, (status.st_mode & kAccessBits) | kPagesMode))
        return u"cannot open public_html to the web server: "_s + reason();
    *count = openPages(home.get(), web);
    return {};
}

} // namespace

QByteArray lookHere(const QStringList &accounts, const QString &homes)
{
    QByteArray text;
    QDataStream stream(&text, QIODevice::WriteOnly);
    for (const OutOfReach &found : look(accounts, homes))
        stream << found.account << static_cast<int>(found.what) << found.count << found.first;
    return text;
}

QList<OutOfReach> findOutOfReach(const QStringList &accounts, const QString &homes)
{
    const std::optional<Rights> rights = webServerRights();
    if (!rights || accounts.isEmpty())
        return {};
    const Work work = workAs(*rights, kLookAllMs, [&] { return lookHere(accounts, homes); });
    QList<OutOfReach> all;
    QDataStream stream(work.said);
    while (!stream.atEnd() && stream.status() == QDataStream::Ok) {
        OutOfReach found;
        int what = 0;
        stream >> found.account >> what >> found.count >> found.first;
        found.what = static_cast<OutOfReach::What>(what);
        all.append(found);
    }
    return all;
}

QByteArray openHere(const QByteArray &home, gid_t webGroup)
{
    int count = 0;
    const QString problem = openHome(home, webGroup, &count);
    QByteArray text;
    QDataStream stream(&text, QIODevice::WriteOnly);
    stream << problem << count;
    return text;
}

// NOLINTNEXTLINE(readability-non-const-parameter): it is read into
QString openToWebServer(const Rights &rights, const QByteArray &home, int *count)
{
    const gid_t web = rights.groups.back();
    const Work work = workAs(rights, kOpenMs, [&] { return openHere(home, web); });
    if (!work.problem.isEmpty())
        return u"the work in the home "_s + work.problem;
    QString problem;
    QDataStream stream(work.said);
    stream >> problem >> *count;
    return problem;
}

} // namespace corv::ctl
