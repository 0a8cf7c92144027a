#pragma once

#include "agent/Reply.h"
#include "common/BackupConfig.h"

namespace corv::backup {

// Makes one backup of the panel's database, the settings files and every account, deletes those past their days, and
// writes its progress to standard output. Returns the exit code: 0, or 1 when there was any problem.
int run(const Config &config);

// backup.status: the settings, the finished backups with their manifests and sizes, what the service manager says of
// the service and its timer, the end of the service's journal, and the space at the destination in bytes (-1 where it
// does not exist). Never fails.
Reply status(const Config &config);

// backup.start: has the service manager start a backup and does not wait for it.
Reply start();

// backup.restore: brings an account's files (into a new folder of its home) or its database back from a finished
// backup.
Reply restore(const Config &config, const QJsonObject &args);

} // namespace corv::backup
