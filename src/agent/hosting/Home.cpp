#include "agent/hosting/Home.h"

#include "common/Account.h"
#include "common/Fd.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

constexpr mode_t kDefaultFolderMode = 0777; // less the process's mask

// Opens the folder name of a folder without following a link, making it where it is missing.
Fd openFolder(int parent, const QString &name)
{
    const QByteArray entry = QFile::encodeName(name);
    if (::mkdirat(parent, entry.constData(), kDefaultFolderMode) != 0 && errno != EEXIST)
        return {};
    return Fd(::openat(parent, entry.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

Fd openHomeFolder(const QString &user, const QString &name)
{
    (void)::mkdir("/home", kDefaultFolderMode); // there, on every server but an odd one
    const Fd homes(::open("/home", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const Fd home = openFolder(homes.get(), user);
    return openFolder(home.get(), name);
}

} // namespace

bool homeHoldsLinks(const QString &user)
{
    static const QStringList places = {u""_s,
                                       u"/public_html"_s,
                                       u"/logs"_s,
                                       u"/tmp"_s,
                                       u"/.ssh"_s,
                                       u"/public_html/index.html"_s,
                                       u"/.ssh/authorized_keys"_s};
    return std::any_of(places.cbegin(), places.cend(),
                       [&](const QString &place) { return QFileInfo(homePath(user) + place).isSymLink(); });
}

void makeHomeFolder(const QString &user, const QString &name)
{
    (void)openHomeFolder(user, name);
}

void writeHomeFile(const QString &user, const QString &folder, const QString &name, const QByteArray &data, mode_t mode)
{
    const Fd parent = openHomeFolder(user, folder);
    // Without O_NONBLOCK a FIFO of that name would hold root up for ever.
    const Fd file(::openat(parent.get(), QFile::encodeName(name).constData(),
                           O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1)
        return;
    if (::ftruncate(file.get(), 0) == 0 && writeAll(file.get(), data))
        (void)::fchmod(file.get(), mode);
}

KeyFile keyFile(const QString &user)
{
    const QString path = homePath(user) + u"/.ssh/authorized_keys"_s;
    // Links are followed, as the SSH daemon follows them. Nothing is opened for reading: O_PATH starts no device and
    // waits for no FIFO.
    const Fd file(::open(QFile::encodeName(path).constData(), O_PATH | O_CLOEXEC));
    struct stat status = {};
    if (!file && (errno == ENOENT || errno == ENOTDIR))
        return KeyFile::Missing;
    if (!file || ::fstat(file.get(), &status) != 0)
        return KeyFile::Regular;
    return S_ISREG(status.st_mode) ? KeyFile::Regular : KeyFile::Other;
}

} // namespace corv::hosting
