#include "ctl/doctor/Deletions.h"

#include "ctl/screen/Terminal.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QMap>
#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

const QString kArchives = u"/var/backups/corvane"_s;

QList<DeletionArchives> deletionArchives(const QString &folder, const QString &account)
{
    static const QRegularExpression pattern(
        QRegularExpression::anchoredPattern(u"([a-z][a-z0-9]{2,15})-(\\d{8}-\\d{6})-(home\\.tar\\.gz|db\\.dump)"_s));
    // While an archive is being made others may read it, as far as its folder lets them.
    constexpr QFileDevice::Permissions kOthers = QFileDevice::ReadGroup | QFileDevice::ReadOther;

    QMap<QString, DeletionArchives> found;
    QMap<QString, int> finished;
    const QFileInfoList files = QDir(folder).entryInfoList(QDir::Files | QDir::NoSymLinks | QDir::Hidden, QDir::Name);
    for (const QFileInfo &file : files) {
        const QRegularExpressionMatch match = pattern.match(file.fileName());
        if (!match.hasMatch() || (!account.isEmpty() && match.captured(1) != account))
            continue;
        const QString key = match.captured(1) + u'-' + match.captured(2);
        DeletionArchives &archives = found[key];
        archives.account = match.captured(1);
        archives.stamp = match.captured(2);
        (file.fileName().endsWith("-db.dump"_L1) ? archives.dump : archives.home) = file.filePath();
        archives.bytes += file.size();
        archives.changed = std::max(archives.changed, file.lastModified().toMSecsSinceEpoch());
        if ((file.permissions() & kOthers) == QFileDevice::Permissions())
            ++finished[key];
        archives.isWhole = finished.value(key) == 2;
        const QString state = u"%1/%2-accounts.state"_s.arg(folder, key);
        archives.state = QFileInfo(state).isFile() ? state : QString();
    }
    return found.values();
}

QList<Finding> checkRefusedDeletions(const QList<DeletionArchives> &archives, const QStringList &accounts, qint64 now)
{
    QHash<QString, QList<DeletionArchives>> refused;
    for (const DeletionArchives &one : archives) {
        // Of an account that is gone they may be the only copy.
        if (!one.isWhole && one.changed < now && accounts.contains(one.account))
            refused[one.account].append(one);
    }
    QList<Finding> findings;
    for (const QString &account : accounts) {
        QStringList files;
        qint64 bytes = 0;
        for (const DeletionArchives &one : refused.value(account)) {
            for (const QString &file : {one.home, one.dump, one.state}) {
                if (!file.isEmpty())
                    files.append(shellWord(file));
            }
            bytes += one.bytes;
        }
        if (files.isEmpty())
            continue;
        findings.append({Level::Note,
                         u"deletions of the account %1 that were refused have left archives of %2"_s.arg(
                             account, humanBytes(bytes)),
                         u"rm "_s + files.join(u' ')});
    }
    return findings;
}

} // namespace corv::ctl
