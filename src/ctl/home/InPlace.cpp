#include "ctl/home/InPlace.h"

#include "common/Tree.h"
#include "ctl/home/Beneath.h"

#include <QDataStream>
#include <QHash>
#include <QIODevice>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kWorkMs = 600'000;
constexpr gid_t kSameGroup = static_cast<gid_t>(-1);
constexpr mode_t kPagesMode = 02750; // what creation gives public_html
constexpr auto kPages = "public_html";

QString reason()
{
    return QString::fromLocal8Bit(std::strerror(errno)); // NOLINT(concurrency-mt-unsafe): there is one thread
}

QString shown(const QByteArray &path)
{
    return QString::fromUtf8(path);
}

bool isThere(int folder, const QByteArray &name)
{
    struct stat status = {};
    return ::fstatat(folder, name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

class Placer
{
public:
    Placer(const Placing &placing, gid_t webGroup) : m_placing(placing), m_web(webGroup) {}

    Placed run()
    {
        m_done.problem = place();
        return m_done;
    }

private:
    QString place()
    {
        m_home = Fd(::open(m_placing.home.constData(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!m_home)
            return u"cannot open the home: "_s + reason();
        m_source = openBeneath(m_home.get(), m_placing.source);
        if (!m_source)
            return u"cannot open %1: %2"_s.arg(shown(m_placing.source), reason());
        for (const QByteArray &path : m_placing.paths) {
            const Fd parent = openBeneath(m_source.get(), parentOf(path));
            if (!parent || !isThere(parent.get(), nameOf(path)))
                return u"%1 has no %2"_s.arg(shown(m_placing.source), shown(path));
        }
        setAccessOfAll();
        for (const QByteArray &path : m_placing.paths) {
            if (const QString problem = placeOne(path); !problem.isEmpty())
                return u"%1: %2"_s.arg(shown(path), problem);
            m_done.placed.append(path);
        }
        removeRest();
        return {};
    }

    [[nodiscard]] gid_t groupFor(const ArchiveEntry &entry) const
    {
        return entry.isWebs || !isReachable(entry) ? m_web : kSameGroup;
    }

    [[nodiscard]] static mode_t modeFor(const ArchiveEntry &entry)
    {
        return isReachable(entry) ? entry.mode : entry.mode | kPagesMode;
    }

    // Where a site was not to be reached when it was saved, bringing it back so helps nobody.
    static bool isReachable(const ArchiveEntry &entry)
    {
        return entry.path != kPages || !entry.isFolder || entry.isWebs || (entry.mode & S_IXOTH) != 0;
    }

    // Gives what was unpacked the access that it had. What cannot be reached by its owner is nobody else's concern.
    void setAccessOfAll()
    {
        QByteArray around;
        Fd folder;
        const auto set = [&](const ArchiveEntry &entry) {
            if (!entry.isPlain && !(entry.isLink && entry.isWebs))
                return;
            if (const QByteArray parent = parentOf(entry.path); !folder || parent != around) {
                folder = openBeneath(m_source.get(), parent);
                around = parent;
            }
            if (entry.isLink) {
                (void)giveLink(folder.get(), nameOf(entry.path), m_web);
                return;
            }
            // What is to be moved elsewhere must let its owner write to it until then.
            const bool isMoved = entry.isFolder && m_placing.paths.contains(entry.path);
            (void)setAccess(folder.get(), nameOf(entry.path), groupFor(entry),
                            modeFor(entry) | (isMoved ? S_IWUSR : 0));
        };
        for (const ArchiveEntry &entry : m_placing.entries) {
            if (entry.isFolder)
                m_folders.insert(entry.path, entry);
            else
                set(entry);
        }
        // A folder last, from within: it may be one that its owner cannot go through.
        std::for_each(m_placing.entries.crbegin(), m_placing.entries.crend(), [&](const ArchiveEntry &entry) {
            if (entry.isFolder)
                set(entry);
        });
    }

    // Opens a folder of the home, making what is missing of the way as the backup has it, or for the owner alone.
    Fd openMaking(int top, const QByteArray &path, bool isLive)
    {
        Fd folder = openBeneath(top, {});
        QByteArray way;
        for (const QByteArray &name : path.isEmpty() ? QList<QByteArray>() : path.split('/')) {
            way += (way.isEmpty() ? "" : "/") + name;
            if (::mkdirat(folder.get(), name.constData(), S_IRWXU) == 0 && isLive && m_folders.contains(way)) {
                const ArchiveEntry entry = m_folders.value(way);
                (void)setAccess(folder.get(), name, groupFor(entry), modeFor(entry) | S_IWUSR);
            }
            folder = openBeneath(folder.get(), name);
            if (!folder)
                return {};
        }
        return folder;
    }

    QString placeOne(const QByteArray &path)
    {
        const QByteArray name = nameOf(path);
        const Fd source = openBeneath(m_source.get(), parentOf(path));
        const Fd live = openMaking(m_home.get(), parentOf(path), true);
        if (!source || !live)
            return u"a folder on its way is a link or cannot be entered: "_s + reason();

        if (!isThere(live.get(), name)) {
            if (::renameat2(source.get(), name.constData(), live.get(), name.constData(), RENAME_NOREPLACE) != 0)
                return u"cannot be moved into place: "_s + reason();
            finish(live.get(), path);
            return {};
        }

        if (::mkdirat(m_home.get(), m_placing.aside.constData(), S_IRWXU) != 0 && !m_aside)
            return u"cannot make %1: %2"_s.arg(shown(m_placing.aside), reason());
        if (!m_aside)
            m_aside = openBeneath(m_home.get(), m_placing.aside);
        const Fd aside = openMaking(m_aside.get(), parentOf(path), false);
        if (!aside)
            return u"cannot keep what is there: "_s + reason();
        // A folder that its owner may not write to cannot be moved to another one.
        struct stat status = {};
        const bool isSealed = ::fstatat(live.get(), name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                              S_ISDIR(status.st_mode) && (status.st_mode & S_IWUSR) == 0;
        if (isSealed)
            (void)setAccess(live.get(), name, kSameGroup, status.st_mode | S_IWUSR);
        if (const QString problem = swap(source.get(), live.get(), aside.get(), name); !problem.isEmpty())
            return problem;
        if (isSealed)
            (void)setAccess(aside.get(), name, kSameGroup, status.st_mode);
        m_done.replaced.append(path);
        finish(live.get(), path);
        return {};
    }

    static QString swap(int source, int live, int aside, const QByteArray &name)
    {
        const char *const entry = name.constData();
        if (::renameat2(source, entry, live, entry, RENAME_EXCHANGE) == 0) {
            return ::renameat2(source, entry, aside, entry, RENAME_NOREPLACE) == 0
                       ? QString()
                       : u"it is in place, but what was there could not be moved aside: "_s + reason();
        }
        // For file systems that cannot exchange two entries.
        if (errno != EINVAL && errno != ENOSYS)
            return u"cannot be moved into place: "_s + reason();
        if (::renameat2(live, entry, aside, entry, RENAME_NOREPLACE) != 0)
            return u"cannot be moved aside: "_s + reason();
        if (::renameat2(source, entry, live, entry, RENAME_NOREPLACE) == 0)
            return {};
        const QString problem = u"cannot be moved into place: "_s + reason();
        (void)::renameat2(aside, entry, live, entry, RENAME_NOREPLACE);
        return problem;
    }

    void finish(int live, const QByteArray &path)
    {
        if (const auto entry = m_folders.constFind(path); entry != m_folders.constEnd())
            (void)setAccess(live, nameOf(path), kSameGroup, modeFor(*entry));
    }

    // What is left of a backup goes; of what an earlier restore had replaced only folders that are empty now.
    void removeRest()
    {
        if (m_placing.isUnpacked) {
            m_done.isRestLeft = !removeTree(m_home.get(), m_placing.source.constData());
            return;
        }
        for (const QByteArray &path : m_placing.paths) {
            for (QByteArray folder = parentOf(path); !folder.isEmpty(); folder = parentOf(folder)) {
                const Fd parent = openBeneath(m_source.get(), parentOf(folder));
                if (!parent || ::unlinkat(parent.get(), nameOf(folder).constData(), AT_REMOVEDIR) != 0)
                    break;
            }
        }
        (void)::unlinkat(m_home.get(), m_placing.source.constData(), AT_REMOVEDIR);
    }

    const Placing &m_placing;
    gid_t m_web;
    Placed m_done;
    QHash<QByteArray, ArchiveEntry> m_folders;
    Fd m_home;
    Fd m_source;
    Fd m_aside;
};

} // namespace

QByteArray placeHere(const Placing &placing, gid_t webGroup)
{
    const Placed done = Placer(placing, webGroup).run();
    QByteArray text;
    QDataStream stream(&text, QIODevice::WriteOnly);
    stream << done.placed << done.replaced << done.problem << done.isRestLeft;
    return text;
}

Placed parsePlaced(const Work &work)
{
    Placed done;
    QDataStream stream(work.said);
    stream >> done.placed >> done.replaced >> done.problem >> done.isRestLeft;
    if (!work.problem.isEmpty() || stream.status() != QDataStream::Ok)
        return {{}, {}, u"the moving "_s + (work.problem.isEmpty() ? u"ended early"_s : work.problem), false};
    return done;
}

Placed putInPlace(const Rights &rights, const Placing &placing)
{
    const gid_t web = rights.groups.back();
    return parsePlaced(workAs(rights, kWorkMs, [&] { return placeHere(placing, web); }));
}

} // namespace corv::ctl
