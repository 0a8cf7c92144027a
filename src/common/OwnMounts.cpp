#include "common/OwnMounts.h"

#include <cerrno>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corv {

bool leaveMounts()
{
    // Not private: where homes are mounted on first use, they must turn up here too.
    return ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) == 0;
}

bool closeLinks(const char *folder)
{
    // A detached copy is changed and put in place whole: at no moment do some links lead on.
    const int copy = ::open_tree(AT_FDCWD, folder, OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE);
    if (copy < 0)
        return false;
    mount_attr attributes = {};
    attributes.attr_set = MOUNT_ATTR_NOSYMFOLLOW;
    const bool closed = ::mount_setattr(copy, "", AT_EMPTY_PATH | AT_RECURSIVE, &attributes, sizeof attributes) == 0 &&
                        ::move_mount(copy, "", AT_FDCWD, folder, MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_SYMLINKS) == 0;
    ::close(copy);
    return closed;
}

bool coverFile(const char *file, const char *with)
{
    return ::mount(with, file, nullptr, MS_BIND, nullptr) == 0;
}

bool canCloseLinks(const char *folder)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(leaveMounts() && closeLinks(folder) ? 0 : 1);
    int status = -1;
    while (child > 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace corv
