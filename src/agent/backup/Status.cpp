#include "agent/backup/Backup.h"
#include "common/Apart.h"
#include "common/BackupList.h"
#include "common/Run.h"

#include <QStorageInfo>

using namespace Qt::Literals::StringLiterals;

namespace corv::backup {
namespace {

// What a tool prints; what went wrong with it does not matter here.
QString outputOf(const QString &program, const QStringList &args)
{
    QByteArray output;
    (void)hosting::run(program, args, {}, &output);
    return QString::fromUtf8(output);
}

QString unitProperty(const QString &property, const QString &unit)
{
    return outputOf(u"systemctl"_s, {u"show"_s, u"-p"_s, property, u"--value"_s, unit}).trimmed();
}

} // namespace

Reply status(const Config &config)
{
    const bool isThere = isAnswering(config.destination);
    const QJsonArray list = isThere ? listBackups(config.destination) : QJsonArray();
    const QString state = unitProperty(u"ActiveState"_s, u"corv-backup.service"_s);
    const QString next = unitProperty(u"NextElapseUSecRealtime"_s, u"corv-backup.timer"_s);
    const QString log = outputOf(
        u"journalctl"_s, {u"-u"_s, u"corv-backup.service"_s, u"-n"_s, u"30"_s, u"-o"_s, u"cat"_s, u"--no-pager"_s});
    const QStorageInfo storage = isThere ? QStorageInfo(config.destination) : QStorageInfo();
    return {{u"ok"_s, true},
            {u"destination"_s, config.destination},
            {u"keepDays"_s, config.keepDays},
            {u"backups"_s, list},
            {u"running"_s, state == "active"_L1 || state == "activating"_L1},
            {u"next"_s, next},
            {u"log"_s, log},
            {u"freeBytes"_s, storage.bytesAvailable()},
            {u"totalBytes"_s, storage.bytesTotal()}};
}

} // namespace corv::backup
