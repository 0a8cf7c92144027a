#pragma once

#include "ctl/Command.h"

#include <QJsonObject>
#include <QString>

namespace corv::ctl {

constexpr auto kListBackups = QLatin1StringView("corvctl backup list shows the backups");

// The backup of that name in a reply of backup.status; empty where there is none.
QJsonObject backupNamed(const QJsonObject &status, const QString &name);

// What is said where there is none.
QString noBackup(const QString &name);

// The commands of the topic that have sources of their own.
Command mountedCommand();
Command restoreCommand();

} // namespace corv::ctl
