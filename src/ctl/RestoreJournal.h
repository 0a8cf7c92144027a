#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

// What is kept of a restore of an account while it is not done, so that the next one goes on with what was cut off.
struct Journal
{
    QString target;  // the account that is made
    QString account; // whose archives it is made of
    QString from;    // of the source: see Source::from
    QString domain;
    qint64 uid = 0;   // of the new account's user; 0 until the agent has said that it is made
    QStringList done; // the names of the steps that are done
    qint64 begun = 0; // when the account was asked for, in seconds since 1970
    qint64 made = 0;  // when the agent had said that it is made, likewise; 0 until then
    bool isWithoutJobs = false;
};

// The folder is root's alone.
inline const QString kJournals = QStringLiteral("/var/lib/corvane/restores");
// Held by a restore that is at work.
inline const QString kRestoreLock = QStringLiteral("/run/corvane/restore.lock");

// The path of that of a target.
QString journalOf(const QString &target);

// Keeps it in place of an earlier one of the same target. False where that cannot be written.
bool keepJournal(const Journal &journal);

// That of a target; nothing where none was cut off.
std::optional<Journal> readJournal(const QString &target);

// All of restores that were cut off, by target.
QList<Journal> journalsInHand();

void removeJournal(const QString &target);

// Whether the user of that name, if there is one, is what the restore has made.
bool isHalfDone(const Journal &journal);

// Whether the user of that name, if there is one, is the account that was asked for at begun, in seconds since 1970,
// with that domain. uid: the number that the agent made it with; 0 where it was cut off before it said so.
bool isOwnCreation(const QString &account, const QString &domain, qint64 uid, qint64 begun);

// When the home of an account was made, in seconds since 1970; later where the file system does not keep that, 0 where
// there is none.
qint64 homeMade(const QString &account);

} // namespace corv::ctl
