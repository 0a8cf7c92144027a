#include "ctl/move/Room.h"

#include <QFile>

#include <algorithm>
#include <limits>

#include <sys/statvfs.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr qint64 kNotCounted = std::numeric_limits<qint64>::max();
constexpr qint64 kAlways = 20; // the part that stays free whatever was told: a twentieth

// A disk that cannot be asked has nothing left.
Left leftAt(const QString &folder)
{
    struct statvfs status = {};
    if (::statvfs(QFile::encodeName(folder).constData(), &status) != 0)
        return {};
    return {static_cast<qint64>(status.f_bavail) * static_cast<qint64>(status.f_frsize),
            status.f_files > 0 ? static_cast<qint64>(status.f_favail) : kNotCounted};
}

qint64 least(qint64 free, qint64 told)
{
    // What was told of may come; of what remains, as much again is left as is taken.
    return std::max((free - std::clamp<qint64>(told, 0, free)) / 2, free / kAlways);
}

} // namespace

Left leastLeft(const Left &free, qint64 bytes, qint64 entries)
{
    return {least(free.bytes, bytes), free.entries == kNotCounted ? 0 : least(free.entries, entries)};
}

Room::Room(const QString &folder, qint64 bytes, qint64 entries)
    : m_folder(folder), m_least(leastLeft(leftAt(folder), bytes, entries))
{}

bool Room::isThere() const
{
    const Left now = leftAt(m_folder);
    return now.bytes >= m_least.bytes && now.entries >= m_least.entries;
}

QString Room::problem() const
{
    return u"more comes than was told of, and fills the disk of %1"_s.arg(m_folder);
}

} // namespace corv::ctl::moving
