#pragma once

#include "common/BackupConfig.h"
#include "ctl/restore/State.h"

#include <QList>
#include <QString>

namespace corv::ctl {

// Where the states of accounts are kept, each in a file that is root's alone: the last one of every account in a file
// of this server; those of a backup's accounts in its folder; and beside the two archives of each deletion the one of
// that account.

inline const QString kKeptStates = QStringLiteral("/var/lib/corvane/accounts.state");
// Made new by each run of the backup, before it begins.
inline constexpr auto kBackupBegan = "/var/lib/corvane/backup.began";
// The file's name in a backup, and the end of its name beside the archives of a deletion.
inline const QString kStateFile = QStringLiteral("accounts.state");

// Writes down the state of each account of this server, and keeps the last ones of those that are gone for some months.
// What a deletion has begun to take away is kept as it was. Puts each next to the archives of its deletion that lack
// one. Returns what went wrong, empty for nothing; all else is done all the same.
QString keepStates();

// Puts the states that were kept last into the newest backup, if the run that the mark is of has made it and it has
// none yet. Returns why that cannot be, empty where there is nothing to do as well.
QString placeInBackup(const backup::Config &config);

// The path of the state beside archives of a deletion, by what their names have in common.
QString stateBeside(const QString &base);

// The parts of it, for tests. Whether the backup of that name was made by a run that began then, in seconds since 1970.
bool isOfThisRun(const QString &name, qint64 began);

// Which of the kept states was that of the account at a deletion that began at a time
// (its stamp, "yyyyMMdd-HHmmss") and last wrote to an archive at another, in seconds since 1970.
std::optional<AccountState> stateAt(const QList<AccountState> &kept, const QString &account, const QString &stamp,
                                    qint64 changed);

// What is kept from now on, of what was kept and what is found now. going: whose deletion has begun.
QList<AccountState> merged(const QList<AccountState> &kept, QList<AccountState> found, const QStringList &going,
                           qint64 now);

} // namespace corv::ctl
