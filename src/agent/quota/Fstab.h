#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace corv::quota {

// The text of an /etc/fstab with the options of journaled user quotas added to its first line for a mount point. All
// other bytes stay as they are, whatever their encoding. The same text when that line names a quota file already,
// nothing when there is no such line.
std::optional<QByteArray> addQuotaOptions(const QByteArray &fstab, const QString &mountPoint);

} // namespace corv::quota
