#pragma once

#include "agent/quota/Text.h"

#include <QString>

namespace corv::quota {

// The only type of file system on which quotas are switched on.
constexpr auto kSupportedType = QLatin1StringView("ext4");

// The Debian package with quotaon, setquota and the others.
inline const QString kQuotaPackage = QStringLiteral("quota");

// The file system that holds /home, as findmnt tells it; empty fields when it does not.
Mount homeMount();

// Why quotas are not switched on by the agent on a file system of this type, which is not the supported one.
QString unsupportedReason(const QString &type);

} // namespace corv::quota
