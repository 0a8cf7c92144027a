#pragma once

#include "ctl/offsite/Restic.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

// What the place holds of one account from one backup.
struct SavedHome
{
    QString backup;
    Snapshot home;
    std::optional<Snapshot> rest; // what holds its database and what no archive holds
};

// What of an account can be fetched, the oldest first: of one server where it is named.
QList<SavedHome> savedOf(const QList<Snapshot> &all, const QString &account, const QString &server);

// The newest of them, from a backup whose name begins with the date (a day, or a whole name; empty for any). What a
// backup could not save whole is only taken where nothing else is there.
std::optional<SavedHome> newestOf(const QList<SavedHome> &saved, const QString &date);

// What was fetched.
struct Fetched
{
    QString problem;     // why not all could be; empty when it could
    QStringList missing; // what the place does not hold, a sentence each
    qint64 bytes = 0;    // of the home, unpacked
};

// Fetches the home, the database and the state of an account into a folder of root's alone that is there and empty, as
// NAME-home.tar.gz, NAME-db.dump and accounts.state, and reads all of it through.
Fetched fetchAccount(const Repository &repository, const QString &account, const SavedHome &saved,
                     const QString &folder);

} // namespace corv::ctl
