#pragma once

#include "ctl/screen/Terminal.h"

#include <QJsonObject>
#include <QString>

#include <optional>

namespace corv::ctl {

struct Session;

// How far the backup is that is being made, as its files tell.
struct BackupStage
{
    qsizetype account = 0; // the one that is being saved, counted from 1
    qsizetype accounts = 0;
    QString name;    // of that account
    qint64 size = 0; // bytes of it so far
    qint64 done = 0; // bytes of all so far
};

// From the folder of the backups; accounts is how many there are to save. Nothing where none is being made, or it
// cannot be read.
std::optional<BackupStage> backupStage(const QString &destination, qsizetype accounts);

// "account 3 of 12: shop, 17.3 MiB", escaped.
QString stageText(const BackupStage &stage);

// A bar for it on standard error, where this server's own agent makes it and the terminal can be drawn on.
class BackupBar
{
public:
    explicit BackupBar(const Session &session) : m_session(session) {}

    // Draws it anew from a reply to backup.status.
    void show(const QJsonObject &reply);
    // Makes room for lines that are printed.
    void clear();

private:
    const Session &m_session;
    std::optional<Progress> m_progress;
};

} // namespace corv::ctl
