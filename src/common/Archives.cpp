#include "common/Archives.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv {

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

} // namespace corv
