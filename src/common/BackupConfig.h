#pragma once

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

} // namespace corv::backup
