#pragma once

#include "common/Account.h"
#include "common/BackupConfig.h"
#include "common/TimedRun.h"
#include "ctl/doctor/Accounts.h"
#include "ctl/doctor/Database.h"
#include "ctl/doctor/Former.h"
#include "ctl/doctor/Php.h"
#include "ctl/doctor/Remainders.h"
#include "ctl/doctor/System.h"

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

namespace corv::ctl {

// Reads of this server what the examination judges. Nothing here writes, but for the statements that are given to it.

// The properties of a unit that tell whether it is up and comes up; empty where systemctl tells nothing.
UnitProperties unitProperties(const QString &unit);

// The text of a file of the system's own, nothing when there is none.
std::optional<QByteArray> textOf(const QString &path);

// What stands at a path; a link is not followed.
Found lookAt(const QString &path);

// Whether the journal is kept in memory, where users have no file of their own in it.
bool hasVolatileJournal();

// Has psql run statements as PostgreSQL's superuser, each by itself, up to the first that fails.
Outcome runStatements(const QStringList &statements);

// What PostgreSQL has; nothing, with the reason in problem, where it cannot be asked.
std::optional<Databases> readDatabases(QString *problem);

// The versions of the client programs that dump and restore, as the agent starts them, each once.
QList<PostgresVersion> readClientVersions();

// The major numbers of the PostgreSQL servers that are installed.
QList<int> readServerVersions();

// The PHP versions for which a folder of pools is there.
QStringList phpVersions();

// The settings of a PHP version's FPM; nothing where it is not installed.
std::optional<PhpState> readPhp(const QString &version);

AccountParts readAccount(const hosting::User &user, const QStringList &phpVersions);

// Of the PHP versions in which an account has a pool those whose FPM runs without listening where the pool says, now.
QStringList unreadPools(const AccountParts &account);
// What a name has on this server that stands in the way of an account's creation.
NameFacts readNameFacts(const QString &name);
NamedParts readNamedParts(const QStringList &phpVersions);

// What the accounts of the past have left, and what keeps it from those of the future.
FormerState readFormer();

// The bytes that the files of each of these homes hold, by the user's name. Empty where that takes more than a minute.
QHash<QString, qint64> readHomeSizes(const QList<hosting::User> &accounts);

// The backups, as the agent's backup.status tells of them: destination, backups, running and freeBytes.
QJsonObject readBackups(const backup::Config &config);

} // namespace corv::ctl
