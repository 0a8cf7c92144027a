#include "common/System.h"

#include "common/Apart.h"
#include "common/Config.h"
#include "common/Json.h"
#include "common/TimedRun.h"

#include <QDateTime>
#include <QFile>
#include <QJsonObject>
#include <QSettings>
#include <QStorageInfo>

#include <algorithm>
#include <array>
#include <memory>

#include <mntent.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::system {
namespace {

#ifdef CORV_SHORT_TIMEOUTS
constexpr int kStatusMs = 1'000;
#else
constexpr int kStatusMs = 5'000;
#endif
constexpr int kDisksMs = 2'000;

void addDisk(const QStorageInfo &volume, QJsonArray *disks)
{
    const QString type = QString::fromLatin1(volume.fileSystemType());
    if (!volume.isValid() || !volume.isReady() || !isOnDisk(type, volume.rootPath(), volume.bytesTotal()))
        return;
    disks->append(QJsonObject{{u"mount"_s, volume.rootPath()},
                              {u"device"_s, QString::fromLatin1(volume.device())},
                              {u"type"_s, type},
                              {u"total"_s, volume.bytesTotal()},
                              {u"avail"_s, volume.bytesAvailable()}});
}

QJsonArray allDisks()
{
    QJsonArray disks;
    for (const QStorageInfo &volume : QStorageInfo::mountedVolumes())
        addDisk(volume, &disks);
    return disks;
}

// Those that no other server and no process answers for.
QJsonArray ownDisks()
{
    QJsonArray disks;
    const std::unique_ptr<FILE, decltype(&::endmntent)> table(::setmntent("/proc/self/mounts", "re"), ::endmntent);
    mntent entry = {};
    std::array<char, 16'384> text = {}; // three paths of the greatest length that there is, and options
    while (table && ::getmntent_r(table.get(), &entry, text.data(), static_cast<int>(text.size()))) {
        const QByteArray type = entry.mnt_type;
        if ((QByteArray(entry.mnt_fsname).startsWith("/dev/") && !type.startsWith("fuse")) || type == "zfs")
            addDisk(QStorageInfo(QFile::decodeName(entry.mnt_dir)), &disks);
    }
    return disks;
}

std::optional<QJsonArray> lookApart(QJsonArray (*look)())
{
    const std::optional<QByteArray> told = workApart(kDisksMs, [look] { return compactJson({{u"disks"_s, look()}}); });
    return told ? std::optional(parseObject(*told).value("disks"_L1).toArray()) : std::nullopt;
}

// The moment in a text such as "Mon 2026-01-05 10:00:00 UTC", invalid where there is none. systemctl writes local time,
// and the abbreviation of a time zone does not say which zone it is.
QDateTime momentIn(const QString &text)
{
    const QStringList fields = text.split(u' ');
    return QDateTime::fromString(fields.value(1) + u' ' + fields.value(2), u"yyyy-MM-dd HH:mm:ss"_s);
}

void addProperty(const QByteArray &line, QJsonObject &service)
{
    const qsizetype equals = line.indexOf('=');
    const QByteArray key = line.left(std::max<qsizetype>(equals, 0));
    const QString value = QString::fromUtf8(line.mid(equals + 1)).trimmed();
    if (key == "LoadState")
        service.insert("loaded"_L1, value == "loaded"_L1);
    else if (key == "ActiveState")
        service.insert("active"_L1, value == "active"_L1);
    else if (key == "SubState")
        service.insert("sub"_L1, value);
    else if (key == "MemoryCurrent")
        service.insert("memory"_L1, value.toLongLong()); // "[not set]" and 2^64 - 1, for no value, read as 0
    else if (key == "ActiveEnterTimestamp") {
        const QDateTime since = momentIn(value);
        if (since.isValid())
            service.insert("since"_L1, since.toSecsSinceEpoch());
    }
}

} // namespace

QStringList monitoredServices(const QSettings &settings)
{
    // An unquoted value with commas arrives as a list already; its parts are names as they stand.
    const QVariant value = settings.value(u"health/services"_s, u"apache2,postgresql"_s);
    const QStringList entries = isList(value) ? value.toStringList() : value.toString().split(u',');

    QStringList services;
    for (const QString &entry : entries) {
        const QString name = entry.trimmed();
        if (!name.isEmpty())
            services.append(name);
    }
    return services;
}

bool isOnDisk(const QString &type, const QString &mount, qint64 bytes)
{
    static const QStringList skippedTypes = {u"tmpfs"_s,    u"devtmpfs"_s, u"squashfs"_s,    u"overlay"_s,
                                             u"efivarfs"_s, u"ramfs"_s,    u"fuse.portal"_s, u"fuse.gvfsd-fuse"_s};
    return bytes > 0 && !skippedTypes.contains(type) && !mount.startsWith("/snap/"_L1) && !mount.startsWith("/run/"_L1);
}

QJsonArray disks()
{
    // Whoever asks a share whose server is gone may wait for ever. One that still does is not joined by others.
    if (stuckWork() == 0) {
        if (const std::optional<QJsonArray> all = lookApart(allDisks))
            return *all;
    }
    return lookApart(ownDisks).value_or(QJsonArray());
}

QJsonArray serviceStatus(const QStringList &services)
{
    if (services.isEmpty())
        return {};
    static const QStringList show = {u"show"_s, u"--no-pager"_s, u"-p"_s,
                                     u"Id,LoadState,ActiveState,SubState,ActiveEnterTimestamp,MemoryCurrent"_s};
    return parseServices(runWithin(kStatusMs, u"systemctl"_s, show + services).output, services);
}

QJsonArray parseServices(const QByteArray &output, const QStringList &services)
{
    QJsonArray all;
    QJsonObject service;
    const auto closeBlock = [&] {
        if (service.isEmpty())
            return;
        // By position, not by the unit's own Id: the panel knows a service under its configured name.
        service.insert("name"_L1, services.value(all.size()));
        all.append(service);
        service = {};
    };

    for (const QByteArray &piece : output.split('\n')) {
        const QByteArray line = piece.trimmed();
        if (line.isEmpty())
            closeBlock();
        else
            addProperty(line, service);
    }
    closeBlock();
    return all;
}

} // namespace corv::system
