#include "common/AtomicFile.h"

#include "common/Fd.h"

#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

struct Attributes
{
    uid_t owner;
    gid_t group;
    mode_t mode;
};

// Fills the temporary file and sees it onto the disk. The owner comes first: changing it takes mode bits away.
bool fill(const Fd &file, const QByteArray &data, const Attributes &attributes)
{
    return writeAll(file.get(), data) && ::fchown(file.get(), attributes.owner, attributes.group) == 0 &&
           ::fchmod(file.get(), attributes.mode) == 0 && ::fsync(file.get()) == 0;
}

} // namespace

bool replaceFile(const QString &path, const QByteArray &data, mode_t modeWhenNew)
{
    // Empty for what is not there yet; a link that leads nowhere is then replaced itself.
    const QString linked = QFileInfo(path).canonicalFilePath();
    const QFileInfo target(linked.isEmpty() ? path : linked);
    const QByteArray name = QFile::encodeName(target.filePath());

    Attributes attributes = {::geteuid(), ::getegid(), modeWhenNew};
    struct stat old = {};
    if (::lstat(name.constData(), &old) == 0 && !S_ISLNK(old.st_mode)) {
        if (!S_ISREG(old.st_mode))
            return false;
        attributes = {old.st_uid, old.st_gid, old.st_mode & ALLPERMS};
    }

    const QByteArray folderName = QFile::encodeName(target.path());
    const Fd folder(::open(folderName.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        return false;

    // The leading dot keeps programs that read every file of a folder of settings away from it.
    QByteArray temporary = folderName + "/." + QFile::encodeName(target.fileName()) + ".XXXXXX";
    const Fd file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!file)
        return false;
    if (!fill(file, data, attributes) || ::rename(temporary.constData(), name.constData()) != 0) {
        (void)::unlink(temporary.constData());
        return false;
    }

    (void)::fsync(folder.get()); // the new file is in place, whatever comes of this
    return true;
}

} // namespace corv
