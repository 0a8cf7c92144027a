#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

#include <sys/types.h>

namespace corv::quota {

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

// The text of an /etc/fstab with the options of journaled user quotas added to its first line for a mount point. All
// other bytes stay as they are, whatever their encoding. The same text when that line names a quota file already,
// nothing when there is no such line.
std::optional<QByteArray> addQuotaOptions(const QByteArray &fstab, const QString &mountPoint);

} // namespace corv::quota
