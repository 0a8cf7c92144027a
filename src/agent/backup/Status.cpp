#include "agent/backup/Backup.h"

#include "agent/hosting/Hosting.h"
#include "common/BackupFolders.h"
#include "common/BackupManifest.h"

#include <QJsonArray>
#include <QStorageInfo>

#include <algorithm>
#include <functional>

using namespace Qt::Literals::StringLiterals;

namespace corv::backup {
namespace {

// For all manifests of one reply together: years of backups of hundreds of accounts, and still no danger to root's
// memory when a file is not what a run wrote.
constexpr qint64 kManifestBudget = 67'108'864;

// The names of the finished backups, newest first.
QStringList finishedBackups(const QString &destination)
{
    QStringList names;
    for (const Folder &folder : foldersIn(destination)) {
        const QString name = QString::fromLatin1(folder.name);
        if (isBackupName(name))
            names.append(name);
    }
    std::sort(names.begin(), names.end(), std::greater<>());
    return names;
}

QJsonArray backups(const QString &destination)
{
    QJsonArray list;
    qint64 budget = kManifestBudget;
    for (const QString &name : finishedBackups(destination)) {
        const QString folder = destination + u'/' + name;
        QJsonObject backup = readManifest(folder, &budget);
        backup.insert("name"_L1, name);
        backup.insert("bytes"_L1, sizeOf(folder));
        list.append(backup);
    }
    return list;
}

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
    const QJsonArray list = backups(config.destination);
    const QString state = unitProperty(u"ActiveState"_s, u"corv-backup.service"_s);
    const QString next = unitProperty(u"NextElapseUSecRealtime"_s, u"corv-backup.timer"_s);
    const QString log = outputOf(
        u"journalctl"_s, {u"-u"_s, u"corv-backup.service"_s, u"-n"_s, u"30"_s, u"-o"_s, u"cat"_s, u"--no-pager"_s});
    const QStorageInfo storage(config.destination);
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
