#include "common/TenantMounts.h"

#include "common/Fd.h"

#include <QFile>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <optional>
#include <string_view>

#include <fcntl.h>
#include <sys/mount.h>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

constexpr qsizetype kPlaceField = 4;
constexpr qsizetype kFirstOptional = 6; // fields of which there may be any number, up to a dash of its own
constexpr qsizetype kOptionsAfterDash = 3;
constexpr qsizetype kEscapeLength = 4; // as in \040
constexpr int kOctal = 8;
constexpr std::size_t kPathBytes = 32;
constexpr std::string_view kDescriptors = "/proc/self/fd/";

// The kernel writes spaces, line feeds and backslashes of paths as three octal digits.
QByteArray unescaped(const QByteArray &text)
{
    QByteArray result;
    for (qsizetype i = 0; i < text.size(); ++i) {
        bool isNumber = false;
        const ushort code = text.at(i) == '\\' ? text.mid(i + 1, kEscapeLength - 1).toUShort(&isNumber, kOctal) : 0;
        result += isNumber ? static_cast<char>(code) : text.at(i);
        i += isNumber ? kEscapeLength - 1 : 0;
    }
    return result;
}

// The place of a line of mountinfo, if a user who is not root mounted what is there. The kernel says itself whose mount
// of FUSE it is; the rest of the line, a made-up type even, may be the user's own words.
std::optional<QByteArray> tenantsPlace(const QByteArray &line)
{
    const QList<QByteArray> fields = line.split(' ');
    const qsizetype dash = fields.indexOf("-", kFirstOptional);
    if (dash < 0 || !fields.value(dash + 1).startsWith("fuse"))
        return {};
    const QList<QByteArray> options = fields.value(dash + kOptionsAfterDash).split(',');
    const bool isTenants = std::any_of(options.cbegin(), options.cend(), [](const QByteArray &option) {
        return option.startsWith("user_id=") && option != "user_id=0";
    });
    return isTenants ? std::optional(unescaped(fields.value(kPlaceField))) : std::nullopt;
}

// Opens what is mounted there, and nothing of it: that would be asked of the user's own program.
Fd openPlace(const MountPlace &place)
{
    Fd at(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (const QByteArray &name : place)
        at = Fd(::openat(at.get(), name.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    return at;
}

} // namespace

QList<MountPlace> tenantMountsIn(const QByteArray &mountinfo, const QByteArray &folder)
{
    QList<MountPlace> places;
    for (const QByteArray &line : mountinfo.split('\n')) {
        const std::optional<QByteArray> place = tenantsPlace(line);
        if (place && (*place == folder || place->startsWith(folder + '/')))
            places.append(place->sliced(1).split('/'));
    }
    return places;
}

QList<MountPlace> tenantMounts(const char *folder)
{
    std::array<char, PATH_MAX> path = {};
    QFile mountinfo(u"/proc/self/mountinfo"_s);
    if (!::realpath(folder, path.data()) || !mountinfo.open(QIODevice::ReadOnly))
        return {};
    return tenantMountsIn(mountinfo.readAll(), path.data());
}

void detachMounts(const QList<MountPlace> &places)
{
    for (const MountPlace &place : places) {
        const Fd mounted = openPlace(place);
        if (!mounted)
            continue;
        std::array<char, kPathBytes> path = {};
        char *const number = std::copy(kDescriptors.begin(), kDescriptors.end(), path.begin());
        (void)std::to_chars(number, path.data() + path.size() - 1, mounted.get());
        (void)::umount2(path.data(), MNT_DETACH);
    }
}

} // namespace corv
