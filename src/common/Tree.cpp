#include "common/Tree.h"

#include "common/Fd.h"
#include "common/FolderStream.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corv {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// A folder on the way from the top of the tree to the one that is open.
struct Level
{
    std::string name;
    dev_t device = 0;
    ino_t inode = 0;
    std::vector<std::string> folders; // still to be visited
};

bool isFolder(int folder, const dirent &entry)
{
    if (entry.d_type != DT_UNKNOWN)
        return entry.d_type == DT_DIR;
    struct stat status = {};
    return ::fstatat(folder, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

class Walk
{
public:
    Walk(int parent, const EntryVisitor &onFile, const EntryVisitor &onFolderEnd, const EntryVisitor &onClosed,
         const WalkLimits &limits)
        : m_parent(parent), m_onFile(onFile), m_onFolderEnd(onFolderEnd), m_onClosed(onClosed), m_limits(limits)
    {}

    bool run(const char *name)
    {
        enter(m_parent, name);
        while (!m_path.empty()) {
            if (!goesOn())
                return false;
            std::vector<std::string> &folders = m_path.back().folders;
            if (folders.empty()) {
                if (!leave())
                    return false;
                continue;
            }
            const std::string next = std::move(folders.back());
            folders.pop_back();
            enter(m_folder.get(), next);
        }
        return m_ok;
    }

    // How many folders lie around an entry that a visitor is called with (one less for what is no folder), and how long
    // the path of the innermost is.
    [[nodiscard]] std::size_t levels() const
    {
        return m_path.size();
    }
    [[nodiscard]] std::size_t bytes() const
    {
        return m_bytes;
    }

private:
    [[nodiscard]] bool goesOn() const
    {
        return !m_limits.goesOn || m_limits.goesOn();
    }

    // Makes a folder the open one and visits its files.
    void enter(int above, const std::string &name)
    {
        Fd folder(::openat(above, name.c_str(), kFolderFlags));
        // A folder that may be read but not searched has no way back up through "..": it is not entered at all.
        Fd self(::openat(folder.get(), ".", kFolderFlags));
        const FolderStream stream(self ? ::fdopendir(self.get()) : nullptr);
        if (stream)
            (void)self.release(); // the stream closes it
        struct stat status = {};
        if (!stream || ::fstat(folder.get(), &status) != 0) {
            m_ok = m_onClosed && m_onClosed(above, name.c_str()) && m_ok;
            return;
        }

        if (m_limits.oneFileSystem && !m_path.empty() && status.st_dev != m_path.back().device)
            return;

        Level level = {name, status.st_dev, status.st_ino, {}};
        while (const dirent *entry = goesOn() ? nextEntry(stream.get()) : nullptr) {
            if (isFolder(folder.get(), *entry))
                level.folders.emplace_back(entry->d_name);
            else
                m_ok = m_onFile(folder.get(), entry->d_name) && m_ok;
        }
        m_bytes += name.size() + 1;
        m_path.push_back(std::move(level));
        m_folder = std::move(folder);
    }

    const dirent *nextEntry(DIR *stream)
    {
        for (;;) {
            errno = 0;
            const dirent *entry = ::readdir(stream);
            if (!entry && errno != 0)
                m_ok = false;
            if (!entry || (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0))
                return entry;
        }
    }

    // Goes back to the folder above. False when the open folder has been moved elsewhere, where nothing is to be done.
    bool leave()
    {
        const std::string name = std::move(m_path.back().name);
        m_path.pop_back();
        m_bytes -= name.size() + 1;
        if (m_path.empty()) {
            m_folder.reset();
            m_ok = m_onFolderEnd(m_parent, name.c_str()) && m_ok;
            return true;
        }

        Fd above(::openat(m_folder.get(), "..", kFolderFlags));
        struct stat status = {};
        if (!above || ::fstat(above.get(), &status) != 0 || status.st_dev != m_path.back().device ||
            status.st_ino != m_path.back().inode)
            return false;
        m_folder = std::move(above);
        m_ok = m_onFolderEnd(m_folder.get(), name.c_str()) && m_ok;
        return true;
    }

    int m_parent;
    const EntryVisitor &m_onFile;
    const EntryVisitor &m_onFolderEnd;
    const EntryVisitor &m_onClosed;
    const WalkLimits &m_limits;
    std::vector<Level> m_path;
    std::size_t m_bytes = 0;
    Fd m_folder;
    bool m_ok = true;
};

} // namespace

bool walkTree(int parent, const char *name, const EntryVisitor &onFile, const EntryVisitor &onFolderEnd,
              const EntryVisitor &onClosed, const WalkLimits &limits)
{
    return Walk(parent, onFile, onFolderEnd, onClosed, limits).run(name);
}

bool removeDeep(int parent, const char *name, std::size_t levels, std::size_t bytes)
{
    const Walk *walk = nullptr;
    const auto removeIfDeep = [&](int folder, const char *child, int flags) {
        return (walk->levels() < levels && walk->bytes() < bytes) || ::unlinkat(folder, child, flags) == 0;
    };
    const EntryVisitor onFile = [&](int folder, const char *file) { return removeIfDeep(folder, file, 0); };
    const EntryVisitor onFolder = [&](int folder, const char *child) {
        return removeIfDeep(folder, child, AT_REMOVEDIR);
    };
    const WalkLimits noLimits;
    Walk whole(parent, onFile, onFolder, onFolder, noLimits);
    walk = &whole;
    return whole.run(name);
}

bool removeTree(int parent, const char *name)
{
    if (::unlinkat(parent, name, 0) == 0)
        return true;
    if (errno != EISDIR)
        return false;
    const auto removeFolder = [](int folder, const char *child) {
        return ::unlinkat(folder, child, AT_REMOVEDIR) == 0;
    };
    // An empty folder goes, whoever may read it.
    return walkTree(
        parent, name, [](int folder, const char *file) { return ::unlinkat(folder, file, 0) == 0; }, removeFolder,
        removeFolder);
}

} // namespace corv
