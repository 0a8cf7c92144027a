#pragma once

#include "ctl/Command.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>

namespace corv::ctl {

constexpr auto kListBackups = QLatin1StringView("corvctl backup list shows the backups");

// The backup of that name in a reply of backup.status; empty where there is none.
QJsonObject backupNamed(const QJsonObject &status, const QString &name);

// Says that there is no backup of that name, and which was probably meant of these, or of those in a reply of
// backup.status. Returns the status to end with.
int refuseNoBackup(const Session &session, const QString &name, const QStringList &backups);
int refuseNoBackup(const Session &session, const QString &name, const QJsonObject &status);

// The commands of the topic that have sources of their own.
Command mountedCommand();
Command restoreCommand();
Command verifyCommand();

// What `restore` does with --in-place: puts files of a backup, or of what an earlier restore replaced, in the place of
// the live ones. Returns the status to end with.
int restoreInPlace(Session &session, const Given &given);

} // namespace corv::ctl
