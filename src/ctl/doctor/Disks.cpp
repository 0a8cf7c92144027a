#include "ctl/doctor/Disks.h"

#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <optional>

#include <sys/stat.h>
#include <sys/statvfs.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr const char *kPlaces[] = {"/home", "/var/lib/postgresql", "/var/log"};
// One of so many parts of all files has to be left.
constexpr qint64 kLastPart = 20;

// The device that a path is on; none where it is not there.
std::optional<dev_t> deviceOf(const QString &path)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return {};
    return status.st_dev;
}

// The uppermost folder on the way to a path that is on its device.
QString mountOf(const QString &path, dev_t device)
{
    QString mount = QFileInfo(path).canonicalFilePath();
    while (mount.size() > 1) {
        const QString above = QFileInfo(mount).path();
        if (deviceOf(above) != device)
            break;
        mount = above;
    }
    return mount;
}

} // namespace

QList<Disk> readDisks()
{
    QList<Disk> disks;
    QSet<dev_t> seen;
    for (const char *place : kPlaces) {
        const QString path = QString::fromLatin1(place);
        const std::optional<dev_t> device = deviceOf(path);
        struct statvfs status = {};
        if (!device || seen.contains(*device) || ::statvfs(place, &status) != 0)
            continue;
        seen.insert(*device);
        if (status.f_files > 0) {
            disks.append(
                {mountOf(path, *device), static_cast<qint64>(status.f_files), static_cast<qint64>(status.f_favail)});
        }
    }
    return disks;
}

QList<Finding> checkDisks(const QList<Disk> &disks)
{
    QList<Finding> findings;
    for (const Disk &disk : disks) {
        if (disk.free >= disk.files / kLastPart)
            continue;
        findings.append(
            {Level::Fault,
             u"only %1 of %2 files are left on %3; without any nothing can be made there, though bytes are free"_s.arg(
                 QString::number(disk.free), QString::number(disk.files), disk.mount),
             u"du -x --inodes --max-depth=2 %1 | sort -n | tail | cat -v"_s.arg(shellWord(disk.mount))});
    }
    return findings;
}

} // namespace corv::ctl
