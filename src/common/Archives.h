#pragma once

#include <QList>
#include <QString>

namespace corv {

// Where the agent puts the archives of deletions.
extern const QString kArchives;

// The two archives that a deletion makes of an account, as far as they are there.
struct DeletionArchives
{
    QString account;
    QString stamp;        // when the deletion began
    QString home;         // the path of the home's archive, empty where there is none
    QString dump;         // likewise of the database
    QString state;        // likewise of what neither holds
    qint64 bytes = 0;     // of both
    qint64 changed = 0;   // milliseconds since 1970 at which the later one was last written to
    bool isWhole = false; // whether both are there and finished, which is told by their modes
};

// Those in the folder, of one account or, for an empty name, of all: by account, then the oldest first.
QList<DeletionArchives> deletionArchives(const QString &folder, const QString &account);

} // namespace corv
