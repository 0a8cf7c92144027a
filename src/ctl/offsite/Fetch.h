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

    // Whether the home is there as it was, and whether the database is there with it.
    [[nodiscard]] bool isWholeHome() const
    {
        return !home.has(kPartTag);
    }
    [[nodiscard]] bool hasDatabase() const
    {
        return rest && !home.has(kBareTag);
    }
};

// What of an account can be fetched, the oldest first: of one server where it is named.
QList<SavedHome> savedOf(const QList<Snapshot> &all, const QString &account, const QString &server);

// The newest of them, from a backup whose name begins with the date (a day, or a whole name; empty for any). One
// without its database is only taken where none has it, and what a backup could not save whole where nothing else is
// there.
std::optional<SavedHome> newestOf(const QList<SavedHome> &saved, const QString &date);

// What was passed over for that one: why the newest of that date was not taken, as a sentence; empty where it was.
QString passedOver(const QList<SavedHome> &saved, const QString &date, const SavedHome &taken);

// The backups of a server whose databases are needed: those that newestOf takes of its accounts, each once, by name.
QStringList backupsInNeed(const QList<Snapshot> &all, const QString &server);

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
