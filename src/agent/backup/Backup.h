#pragma once

#include "agent/Reply.h"

#include <QString>

class QSettings;

namespace corv::backup {

struct Config
{
    QString destination; // absolute folder with one sub-folder for each backup
    int keepDays = 1;    // days that a finished backup is kept, at least 1
};

// The backup settings, keys backup/destination and backup/keep_days; what is no number, or one
// below 1, reads as 1 day. A destination with an unquoted comma, which the INI format splits, reads as empty.
Config load(const QSettings &settings);

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
