#include "common/BackupConfig.h"

#include <QDir>
#include <QSettings>

#include <algorithm>
#include <limits>

using namespace Qt::Literals::StringLiterals;

namespace corv::backup {
namespace {

constexpr int kDefaultKeepDays = 14;
constexpr qint64 kMostDays = std::numeric_limits<int>::max();

} // namespace

Config load(const QSettings &settings)
{
    const QString destination = settings.value(u"backup/destination"_s, u"/var/backups/corvane/auto"_s).toString();
    // Read as 64 bits: cut down to 32, a large number of days might become a small one, and the backups be deleted.
    const qint64 keepDays = settings.value(u"backup/keep_days"_s, kDefaultKeepDays).toLongLong();
    return {QDir::cleanPath(destination), static_cast<int>(std::clamp<qint64>(keepDays, 1, kMostDays))};
}

} // namespace corv::backup
