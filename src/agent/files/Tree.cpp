#include "common/Tree.h"
#include "agent/files/Operations.h"
#include "common/Fd.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::files {
namespace {

constexpr mode_t kFolderMode = 0777; // less the process's mask

bool isFolder(const char *path)
{
    struct stat status = {};
    return ::lstat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

// For file systems that cannot move without replacing: a second name and a new folder are never put over what is there,
// and a folder that has been filled meanwhile is not replaced by another one.
bool moveInSteps(const char *source, const char *target)
{
    if (!isFolder(source))
        return ::link(source, target) == 0 && ::unlink(source) == 0;
    if (::mkdir(target, kFolderMode) != 0)
        return false;
    if (::rename(source, target) == 0)
        return true;
    const int problem = errno;
    (void)::rmdir(target);
    errno = problem;
    return false;
}

bool moveWithoutReplacing(const char *source, const char *target)
{
    if (::renameat2(AT_FDCWD, source, AT_FDCWD, target, RENAME_NOREPLACE) == 0)
        return true;
    return (errno == EINVAL || errno == ENOSYS) && moveInSteps(source, target);
}

} // namespace

Reply makeFolder(const QByteArray &path)
{
    if (::mkdir(path.constData(), kFolderMode) == 0)
        return {{u"ok"_s, true}};
    return fail(errno == EEXIST ? u"something with that name exists"_s : u"could not create the folder"_s);
}

Reply rename(const QByteArray &source, const QByteArray &target)
{
    const QString taken = u"something with the new name exists"_s;
    struct stat status = {};
    if (::lstat(target.constData(), &status) == 0)
        return fail(taken);
    if (moveWithoutReplacing(source.constData(), target.constData()))
        return {{u"ok"_s, true}};
    return fail(errno == EEXIST ? taken : u"could not rename"_s);
}

Reply remove(const QByteArray &path)
{
    const qsizetype slash = path.lastIndexOf('/');
    const Fd folder(::open(path.left(slash + 1).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (folder && removeTree(folder.get(), path.constData() + slash + 1))
        return {{u"ok"_s, true}};
    return fail(u"could not delete (all of) it"_s);
}

} // namespace corv::files
