#include "ctl/metrics/Textfile.h"

#include "common/Fd.h"
#include "ctl/home/Beneath.h"

#include <QFile>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr mode_t kMode = 0644;

QString why(const QString &what)
{
    return u"%1: %2"_s.arg(what, QString::fromLocal8Bit(std::strerror(errno)));
}

// Folder by folder: openat2, which could do that at once, is kept from services that may not make set-user-ID files.
Fd openFolder(const QByteArray &path)
{
    const Fd root(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    return openBeneath(root.get(), insidePath(path.sliced(1)));
}

} // namespace

QString writeTextfile(const QString &path, const QByteArray &text)
{
    const QString folderName = path.left(path.lastIndexOf(u'/'));
    const QByteArray name = QFile::encodeName(path.mid(path.lastIndexOf(u'/') + 1));
    if (!path.startsWith(u'/') || folderName.isEmpty() || name.isEmpty() || path.contains("/../"_L1))
        return u"%1 is no absolute path of a file in a folder"_s.arg(path);
    const Fd folder = openFolder(QFile::encodeName(folderName));
    if (!folder && errno == ENOTDIR)
        return u"there is a link or a file on the way to %1; its true path has to be named"_s.arg(folderName);
    if (!folder)
        return why(folderName);

    // One run at a time writes, so what has this name was left by one that was killed.
    const QByteArray temporary = '.' + name + ".new";
    (void)::unlinkat(folder.get(), temporary.constData(), 0);
    const Fd file(::openat(folder.get(), temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                           S_IRUSR | S_IWUSR));
    if (!file)
        return why(u"cannot write into "_s + folderName);
    const bool isWritten =
        writeAll(file.get(), text) && ::fchmod(file.get(), kMode) == 0 && ::fdatasync(file.get()) == 0;
    if (isWritten && ::renameat(folder.get(), temporary.constData(), folder.get(), name.constData()) == 0)
        return {};
    const QString problem = why(u"cannot write "_s + path);
    (void)::unlinkat(folder.get(), temporary.constData(), 0);
    return problem;
}

} // namespace corv::ctl
