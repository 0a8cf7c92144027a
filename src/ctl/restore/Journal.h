#pragma once

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
};

// The folder is root's alone.
inline const QString kJournals = QStringLiteral("/var/lib/corvane/restores");

// Keeps it in place of an earlier one of the same target. False where that cannot be written.
bool keepJournal(const Journal &journal);

// That of a target; nothing where none was cut off.
std::optional<Journal> readJournal(const QString &target);

// Those of restores that were cut off.
QStringList targetsInHand();

void removeJournal(const QString &target);

// Whether the user of that name, if there is one, is what the restore has made.
bool isHalfDone(const Journal &journal);

} // namespace corv::ctl
