#include "agent/files/Names.h"
#include "agent/files/Operations.h"
#include "common/Fd.h"
#include "common/FolderStream.h"
#include "common/Text.h"

#include <QJsonArray>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::files {
namespace {

constexpr mode_t kPermissionBits = 0777;

struct Entry
{
    std::string name;
    std::string folded; // the name without regard to letter case
    bool isFolder = false;
    bool isLink = false;
};

bool comesBefore(const Entry &left, const Entry &right)
{
    if (left.isFolder != right.isFolder)
        return left.isFolder;
    return std::tie(left.folded, left.name) < std::tie(right.folded, right.name);
}

// Puts a name into an entry. Names of ASCII letters alone, nearly all of them, do without a conversion.
void setName(Entry &entry, const char *name)
{
    entry.name = name;
    entry.folded = name;
    bool isAscii = true;
    for (char &c : entry.folded) {
        isAscii = isAscii && static_cast<unsigned char>(c) < 0x80;
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c + ('a' - 'A'));
    }
    if (!isAscii)
        entry.folded = shown(QByteArray::fromStdString(entry.name)).toLower().toUtf8().toStdString();
}

// Keeps the first entries of however many it is given, in memory for twice as many as it keeps.
class FirstEntries
{
public:
    // Whether the entry cannot be among the first any more.
    [[nodiscard]] bool isBeyond(const Entry &entry) const
    {
        return m_last && !comesBefore(entry, *m_last);
    }

    void add(const Entry &entry)
    {
        if (isBeyond(entry))
            return;
        m_entries.push_back(entry);
        if (m_entries.size() == 2 * static_cast<size_t>(kMaxEntries))
            prune();
    }

    // The first entries in order.
    std::vector<Entry> take()
    {
        if (m_entries.size() > static_cast<size_t>(kMaxEntries))
            prune();
        std::sort(m_entries.begin(), m_entries.end(), comesBefore);
        return std::move(m_entries);
    }

private:
    void prune()
    {
        const auto last = m_entries.begin() + (kMaxEntries - 1);
        std::nth_element(m_entries.begin(), last, m_entries.end(), comesBefore);
        m_entries.erase(last + 1, m_entries.end());
        m_last = m_entries.back();
    }

    std::vector<Entry> m_entries;
    std::optional<Entry> m_last;
};

bool leadsToFolder(int folder, const char *name)
{
    struct stat status = {};
    return ::fstatat(folder, name, &status, 0) == 0 && S_ISDIR(status.st_mode);
}

// Settles what kind of entry it is, for those whose kind the folder itself does not tell.
void setKind(Entry &entry, int folder, unsigned char type)
{
    struct stat status = {};
    if (type == DT_UNKNOWN && ::fstatat(folder, entry.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        type = static_cast<unsigned char>(IFTODT(status.st_mode));
    entry.isLink = type == DT_LNK;
    entry.isFolder = entry.isLink ? leadsToFolder(folder, entry.name.c_str()) : type == DT_DIR;
}

// Reads a folder once. Returns how many entries it has, nothing, with errno set, when it cannot be read.
std::optional<qsizetype> readFolder(DIR *stream, FirstEntries &first)
{
    qsizetype count = 0;
    Entry entry;
    for (;;) {
        errno = 0;
        const dirent *found = ::readdir(stream);
        if (!found)
            return errno == 0 ? std::optional<qsizetype>(count) : std::nullopt;
        if (std::strcmp(found->d_name, ".") == 0 || std::strcmp(found->d_name, "..") == 0)
            continue;
        ++count;
        setName(entry, found->d_name);
        entry.isLink = false;
        entry.isFolder = true; // the best that it can turn out to be: what is beyond even so is not looked at
        if (found->d_type != DT_DIR && !first.isBeyond(entry))
            setKind(entry, ::dirfd(stream), found->d_type);
        first.add(entry);
    }
}

// Nothing when the entry has gone meanwhile. A link that leads nowhere has no size, time or mode.
std::optional<QJsonObject> describe(int folder, const Entry &entry)
{
    struct stat status = {};
    if (::fstatat(folder, entry.name.c_str(), &status, 0) != 0) {
        if (errno == ENOENT && !entry.isLink)
            return {};
        status = {};
    }
    const bool isFolder = entry.isFolder || S_ISDIR(status.st_mode);
    return QJsonObject{
        {u"name"_s, shown(QByteArray::fromStdString(entry.name))},
        {u"dir"_s, isFolder},
        {u"link"_s, entry.isLink},
        {u"size"_s, isFolder ? qint64(0) : qint64(status.st_size)},
        {u"mtime"_s, qint64(status.st_mtim.tv_sec)},
        {u"mode"_s, QString::number(status.st_mode & kPermissionBits, 8)},
    };
}

} // namespace

Reply list(const QByteArray &path)
{
    struct stat status = {};
    if (::stat(path.constData(), &status) != 0 || !S_ISDIR(status.st_mode))
        return fail(u"not a folder"_s);
    const FolderStream stream(::opendir(path.constData()));
    if (!stream)
        return fail(errno == ENOENT || errno == ENOTDIR ? u"not a folder"_s : QString::fromUtf8(std::strerror(errno)));

    FirstEntries first;
    const std::optional<qsizetype> count = readFolder(stream.get(), first);
    if (!count)
        return fail(QString::fromUtf8(std::strerror(errno)));

    QJsonArray entries;
    for (const Entry &entry : first.take()) {
        if (const std::optional<QJsonObject> object = describe(::dirfd(stream.get()), entry))
            entries.append(*object);
    }
    return {{u"ok"_s, true}, {u"entries"_s, entries}, {u"truncated"_s, *count > kMaxEntries}};
}

} // namespace corv::files
