#include "common/BackupList.h"

#include "common/BackupFolders.h"
#include "common/BackupManifest.h"

#include <QJsonObject>

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

} // namespace

QJsonArray listBackups(const QString &destination)
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

} // namespace corv::backup
