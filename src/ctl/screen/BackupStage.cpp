#include "ctl/screen/BackupStage.h"

#include "common/BackupFolders.h"
#include "ctl/Meant.h"
#include "ctl/Session.h"
#include "ctl/screen/Escape.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr auto kHomeEnd = "-home.tar.gz"_L1;
constexpr auto kDatabaseEnd = "-db.dump"_L1;

// The unfinished backup that was begun last; empty where there is none.
QString newestPartial(const QString &destination)
{
    QString newest;
    for (const backup::Folder &folder : backup::foldersIn(destination)) {
        const QString name = QFile::decodeName(folder.name);
        if (name.startsWith(backup::kPartialPrefix))
            newest = std::max(newest, name);
    }
    return newest;
}

} // namespace

std::optional<BackupStage> backupStage(const QString &destination, qsizetype accounts)
{
    const QString partial = newestPartial(destination);
    if (partial.isEmpty())
        return {};
    const QString folder = u"%1/%2"_s.arg(destination, partial);
    BackupStage stage;
    stage.done = backup::sizeOf(folder);
    QDateTime last;
    const QDir saved(folder + u"/accounts"_s);
    for (const QFileInfo &file : saved.entryInfoList({u'*' + kHomeEnd}, QDir::Files | QDir::Hidden)) {
        ++stage.account;
        if (last.isValid() && file.lastModified() < last)
            continue;
        last = file.lastModified();
        stage.name = file.fileName().chopped(kHomeEnd.size());
        stage.size = file.size() + QFileInfo(saved.filePath(stage.name + kDatabaseEnd)).size();
    }
    stage.accounts = std::max(accounts, stage.account);
    return stage;
}

QString stageText(const BackupStage &stage)
{
    if (stage.account == 0)
        return u"panel and settings"_s;
    return u"account %1 of %2: %3, %4"_s.arg(QString::number(stage.account), QString::number(stage.accounts),
                                             escaped(stage.name), humanBytes(stage.size));
}

void BackupBar::show(const QJsonObject &reply)
{
    if (!m_session.options.hosts.empty() || !m_session.terminal.moves || !reply.value("running"_L1).toBool())
        return;
    const std::optional<QStringList> names = accountNames(m_session);
    const std::optional<BackupStage> stage =
        backupStage(reply.value("destination"_L1).toString(), names ? names->size() : 0);
    if (!stage)
        return;
    // The newest that is finished is as large as this one will be, more or less.
    const QJsonValue before = reply.value("backups"_L1).toArray().at(0).toObject().value("bytes"_L1);
    if (!m_progress)
        m_progress.emplace(m_session.terminal, QString(), before.toInteger(-1));
    m_progress->rename(stageText(*stage));
    m_progress->show(stage->done);
}

void BackupBar::clear()
{
    if (m_progress)
        m_progress->clear();
}

} // namespace corv::ctl
