#include "agent/quota/Quota.h"

#include "agent/quota/Fstab.h"
#include "common/AtomicFile.h"
#include "common/Packages.h"
#include "common/Quotas.h"
#include "common/Run.h"

#include <QDateTime>
#include <QFile>
#include <QSysInfo>

#include <optional>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::quota {
namespace {

const auto kFstab = u"/etc/fstab"_s;
constexpr mode_t kFstabMode = 0644; // where there is none whose mode could be kept

std::optional<QByteArray> contentOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray content = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return {};
    return content;
}

// The mode of a copy of a file: nobody may read in it what the file itself keeps from him.
mode_t modeOf(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode & ALLPERMS : kFstabMode;
}

QString remount(const QString &mountPoint)
{
    return hosting::run(u"mount"_s, {u"-o"_s, u"remount"_s, mountPoint});
}

// Adds the quota options to the mount point's line in /etc/fstab. Returns the message of what went wrong, if anything;
// sets backup to the path of the old file's copy when, and only when, the file was changed.
QString addToFstab(const QString &mountPoint, QString *backup)
{
    const std::optional<QByteArray> old = contentOf(kFstab);
    if (!old)
        return u"cannot read /etc/fstab"_s;
    const std::optional<QByteArray> edited = addQuotaOptions(*old, mountPoint);
    if (!edited)
        return u"/etc/fstab has no line for %1; add quota options there by hand"_s.arg(mountPoint);
    if (*edited == *old)
        return {};

    const QString copy = u"%1.corv-%2"_s.arg(kFstab, QDateTime::currentDateTime().toString(u"yyyyMMdd-HHmmss"_s));
    if (!replaceFile(copy, *old, modeOf(kFstab)))
        return u"cannot back up /etc/fstab"_s;
    if (!replaceFile(kFstab, *edited, kFstabMode))
        return u"cannot write /etc/fstab"_s;
    *backup = copy;
    return {};
}

// Puts the old /etc/fstab back in one step: a machine without one may not start again.
void restoreFstab(const QString &backup)
{
    if (const std::optional<QByteArray> old = contentOf(backup))
        (void)replaceFile(kFstab, *old, modeOf(backup)); // nothing is left to try: the copy is there to see
}

} // namespace

Reply enable(const QJsonObject &)
{
    const Mount home = homeMount();
    if (home.type != kSupportedType) {
        // Asked once more, findmnt may tell of the supported type: then there is a reason no longer.
        return fail(status({}).value("reason"_L1).toString(unsupportedReason(home.type)));
    }
    if (installed(kQuotaPackage) && enabled())
        return {{u"ok"_s, true}, {u"already"_s, true}};

    QStringList packages = {kQuotaPackage, u"linux-modules-extra-"_s + QSysInfo::kernelVersion()};
    if (installed(u"linux-image-virtual"_s))
        packages.append(u"linux-image-extra-virtual"_s); // keeps the module there when the kernel is upgraded
    if (const QString error = aptInstall(packages); !error.isEmpty())
        return fail(u"installing %1 failed: %2"_s.arg(packages.join(", "_L1), error));

    if (const QString error = hosting::run(u"modprobe"_s, {u"quota_v2"_s}); !error.isEmpty())
        return fail(error);

    QString backup;
    if (const QString error = addToFstab(home.point, &backup); !error.isEmpty())
        return fail(error);
    const auto failRestored = [&](const QString &message) {
        if (backup.isEmpty())
            return fail(message);
        restoreFstab(backup);
        (void)remount(home.point); // the file is what counts at the next start
        return fail(message + " (/etc/fstab restored)"_L1);
    };

    if (const QString error = remount(home.point); !error.isEmpty())
        return failRestored(error);
    if (const QString error = hosting::run(u"quotacheck"_s, {u"-cum"_s, home.point}); !error.isEmpty())
        return failRestored(error);
    if (const QString error = hosting::run(u"quotaon"_s, {u"-u"_s, home.point}); !error.isEmpty())
        return failRestored(error);

    Reply reply = {{u"ok"_s, true}, {u"mount"_s, home.point}};
    if (!backup.isEmpty())
        reply.insert("fstabBackup"_L1, backup);
    return reply;
}

} // namespace corv::quota
