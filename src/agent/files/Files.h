#pragma once

#include "agent/Reply.h"

#include <QString>

namespace corv::files {

// files: one operation on an account's files, done by the file helper under the account's own rights. self is the
// absolute path of this executable, which is started again as the helper. Uploads are taken from the transfer directory
// and downloads put there; its rules are in FilesTransfer.h.
Reply command(const QJsonObject &args, const QString &self);

} // namespace corv::files
