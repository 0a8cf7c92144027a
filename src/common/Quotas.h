#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

#include <sys/types.h>

namespace corv::quota {

// The disk quotas of the file system that holds /home, asked of and set with the system's own tools.

// The only type of file system on which quotas are switched on.
constexpr auto kSupportedType = QLatin1StringView("ext4");

// The Debian package with quotaon, setquota and the others.
inline const QString kQuotaPackage = QStringLiteral("quota");

// The largest limit: 100 TiB.
constexpr qint64 kMaxMb = 104'857'600;

struct Mount
{
    QString point;
    QString type; // of its file system
};

// The file system that "findmnt -n -o TARGET,FSTYPE" names; what its output lacks is empty.
Mount parseMount(const QByteArray &output);

struct Usage
{
    uid_t uid;
    qint64 bytes;
};

// The users in the output of "repquota -u -n", in its order; all other lines are skipped.
QList<Usage> parseUsage(const QByteArray &output);

// The file system that holds /home, as findmnt tells it; empty fields when it does not.
Mount homeMount();

// Why quotas are not switched on by the agent on a file system of this type, which is not the supported one.
QString unsupportedReason(const QString &type);

// Whether user quotas are on for the file system that holds /home, as quotaon tells it; false also without the tool.
bool enabled();

// Limits a user to mb MiB on /home's file system, 0 for no limit. Returns why that cannot be, empty on success.
QString setLimit(const QString &user, qint64 mb);

// Stores through bytes what each account uses, by login name, of every user with the account marker that has quota
// data, as repquota tells it. Returns the message of the runner. Its cost grows linearly with the user database.
QString usage(QMap<QString, qint64> *bytes);

} // namespace corv::quota
