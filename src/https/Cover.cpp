#include "https/Cover.h"

#include "common/FolderStream.h"

#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corv::https {
namespace {

constexpr auto kServersRun = "/run/apache2";
constexpr auto kLogFolder = "/var/log/apache2";
constexpr auto kLockFolder = "/run/lock";
// Logs, sockets and what changes in the store; a server that fills it does not come up.
constexpr auto kMemoryFolder = "size=64m,mode=0755";
constexpr auto kStoreCopy = "/run/apache2/store";

bool tmpfs(const char *folder)
{
    (void)::mkdir(folder, 0755); // is there nearly always
    return ::mount("tmpfs", folder, "tmpfs", MS_NOSUID | MS_NODEV, kMemoryFolder) == 0;
}

// Runs a tool to its end.
bool runTool(const std::vector<const char *> &words)
{
    const pid_t child = ::fork();
    if (child == 0) {
        (void)::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
        std::vector<char *> arguments;
        arguments.reserve(words.size() + 1);
        for (const char *word : words)
            arguments.push_back(const_cast<char *>(word));
        arguments.push_back(nullptr);
        ::execv(arguments.front(), arguments.data());
        ::_exit(127);
    }
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

// Takes the room from a file system in memory that is left on it.
bool fill(const char *folder)
{
    struct statvfs status = {};
    if (::statvfs(folder, &status) != 0)
        return false;
    const std::string size = "size=" + std::to_string((status.f_blocks - status.f_bfree) * status.f_frsize);
    return ::mount(nullptr, folder, nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV, size.c_str()) == 0;
}

// What of the store a server reads when it starts: all but the certificates that were replaced, which grow with the
// years.
std::vector<std::string> readParts(const std::string &store)
{
    std::vector<std::string> parts;
    const FolderStream stream(::opendir(store.c_str()));
    while (const dirent *entry = stream ? ::readdir(stream.get()) : nullptr) {
        const std::string name(entry->d_name);
        if (name != "." && name != ".." && name != "archive")
            parts.push_back(std::string(store).append("/").append(name));
    }
    return parts;
}

// A copy of the store in its place.
bool copyStore(const Cover &cover)
{
    const std::vector<std::string> parts = readParts(cover.store);
    std::vector<const char *> words{"/bin/cp", "-a", "--"};
    for (const std::string &part : parts)
        words.push_back(part.c_str());
    words.push_back(kStoreCopy);
    return ::mkdir(kStoreCopy, 0755) == 0 && tmpfs(kStoreCopy) && (parts.empty() || runTool(words)) &&
           (!cover.isFull || fill(kStoreCopy)) &&
           ::mount(kStoreCopy, cover.store.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

// What is written to the store goes elsewhere, which takes no time however large it is.
bool overlayStore(const Cover &cover)
{
    const char *store = cover.store.c_str();
    const std::string upper = std::string(kServersRun) + "/upper";
    const std::string work = std::string(kServersRun) + "/work";
    // The folder's own owner and mode are those of the upper one.
    if (::mkdir(upper.c_str(), 0755) != 0 || ::mkdir(work.c_str(), 0700) != 0)
        return false;
    const std::string options = "redirect_dir=on,lowerdir=" + cover.store + ",upperdir=" + upper + ",workdir=" + work;
    if (::mount("overlay", store, "overlay", 0, options.c_str()) != 0)
        return false;
    // Apache renames whole folders there. Not every kernel and file system lets it.
    const std::string folder = cover.store + "/domains";
    const std::string other = cover.store + "/domains.moved";
    if (::access(folder.c_str(), F_OK) != 0 || ::rename(folder.c_str(), other.c_str()) == 0) {
        (void)::rename(other.c_str(), folder.c_str()); // where there was one
        return true;
    }
    (void)::umount2(store, MNT_DETACH);
    return false;
}

// Lets the server change its store without changing the real one.
bool coverStore(const Cover &cover)
{
    return (!cover.isFull && overlayStore(cover)) || copyStore(cover);
}

} // namespace

bool coverFolders(const Cover &cover)
{
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && tmpfs(kServersRun) &&
           tmpfs(kLogFolder) && tmpfs(kLockFolder) && coverStore(cover);
}

} // namespace corv::https
