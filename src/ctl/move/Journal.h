#pragma once

#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl::moving {

// What is kept of a move, so that the same command goes on with it, and until the old address forwards no more.
struct Record
{
    QString account;
    QString host;         // the server that it comes from, as ssh takes it
    QString domain;       // the one that the account here was asked for with
    qint64 uid = 0;       // of the account's user here; 0 until the agent has said that it is made
    qint64 begun = 0;     // when it was asked for, in seconds since 1970
    qint64 rehearsed = 0; // milliseconds that the rehearsal of the database took
    QStringList done;     // the names of the steps, see below
    bool isBack = false;  // the account was this server's before, and left it for that host
    QString word = {};    // by which the old server's verdict is known to be on this move, see Verdict; empty before
                          // its first switch

    bool operator==(const Record &) const = default;
};

// The steps that are not done twice, or that another attempt has to know of.
inline const QString kCreated = QStringLiteral("created");     // the account is here
inline const QString kRehearsed = QStringLiteral("rehearsed"); // its files and its dump have been here once
inline const QString kSwitching = QStringLiteral("switching"); // the old server may have suspended it since
inline const QString kPlacing = QStringLiteral("placing");     // the files may be in place since
inline const QString kDecided = QStringLiteral("decided");     // this server has it
inline const QString kReturned = QStringLiteral("returned");   // nothing leads its names away from here any more
inline const QString kForwarded = QStringLiteral("forwarded"); // the old address leads here
inline const QString kFinished = QStringLiteral("finished");   // all is put back, of which each part is once alone:
inline const QString kCleared = QStringLiteral("cleared");     // who comes back has no jobs here that he had then
inline const QString kLogin = QStringLiteral("login");
inline const QString kJobs = QStringLiteral("jobs");
inline const QString kLinger = QStringLiteral("linger");
inline const QString kCrontab = QStringLiteral("crontab");
inline const QString kLimit = QStringLiteral("limit");

// The folder is root's alone; so is what is in it.
inline const QString kMoves = QStringLiteral("/var/lib/corvane/moves");

// Held by a move of an account that is at work.
QString lockOf(const QString &account);

// The path of a file of an account's move, such as "dump".
QString moveFile(const QString &account, const QString &end);

// Keeps it in place of an earlier one of the same account. False where that cannot be written.
bool keepRecord(const Record &record);

// The same with one more step done, or some fewer.
bool keepDone(Record *record, const QString &step);
bool keepUndone(Record *record, const QStringList &steps);

// That of an account; nothing where none was begun.
std::optional<Record> readRecord(const QString &account);

// All that there are, by account.
QList<Record> records();

// Removes it, with what else is kept of the move.
void removeRecord(const QString &account);

// Whether an account of this server has left it: decided by the server that it went to. forgetLeft ends that, once the
// record of its coming back tells of it; false where it cannot.
bool hasLeft(const QString &account);
bool forgetLeft(const QString &account);

// Whether the user of that name here, if there is one, is what the move has made.
bool isMade(const Record &record);

} // namespace corv::ctl::moving
