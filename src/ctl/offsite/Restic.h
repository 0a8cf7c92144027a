#pragma once

#include "ctl/offsite/Place.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

// restic with a place: where it is, and the variables that reach it.
struct Repository
{
    OffsitePlace place;
    QMap<QString, QString> environment;
};

// The repository of the place, with what root's files hold for it, and its key in a file of root's alone. Nothing, with
// the reason in problem, where restic is not installed or one of the files is of no use.
std::optional<Repository> openPlace(const OffsitePlace &place, const QString &keyFile, QString *problem);

// What became of a call of restic.
struct Answered
{
    QString problem; // why it failed, in a sentence; empty when it did not
    QByteArray output;
    QByteArray errors;
};

// Runs restic with these arguments for so many milliseconds at most.
Answered restic(const Repository &repository, const QStringList &args, int milliseconds);

// The arguments of a call: what the place needs, and those of the call.
QStringList resticArgs(const Repository &repository, const QStringList &args);

// The sentence that tells why restic failed, from what it wrote to its standard error.
QString resticReason(const QByteArray &errors);

// A state of something that the repository holds.
struct Snapshot
{
    QString id;
    QString server;   // whose it is
    qint64 time = 0;  // of the backup that it is from, in seconds since 1970
    QStringList tags; // what it is, and the name of the backup
    QString path;     // of its file or folder

    [[nodiscard]] bool has(const QString &tag) const
    {
        return tags.contains(tag);
    }
    // The name of the backup that it is from; empty for none.
    [[nodiscard]] QString backup() const;
};

// Our snapshots in the output of "restic snapshots --json", the oldest first.
QList<Snapshot> parseSnapshots(const QByteArray &json);

// All of ours that the repository holds. Sets problem where it cannot be asked. Takes no lock.
QList<Snapshot> readSnapshots(const Repository &repository, QString *problem);

// The bytes that the end of "restic backup --json" says were new to the repository; -1 where it says nothing.
qint64 addedBytes(const QByteArray &json);

// What snapshots are marked with: all, and each by what it holds.
inline const QString kOurTag = QStringLiteral("corv");
inline const QString kHomeTag = QStringLiteral("home");
inline const QString kRestTag = QStringLiteral("rest");       // all of a backup but the homes
inline const QString kDeletedTag = QStringLiteral("deleted"); // what deletions of accounts have left
inline const QString kProbeTag = QStringLiteral("probe");
inline const QString kPartTag = QStringLiteral("incomplete");  // what the backup itself could not save whole
inline const QString kBareTag = QStringLiteral("no-database"); // a home whose database that backup could not save

// The name that the home of an account has in the repository.
QString homeName(const QString &account);

// How long restic may take for what moves hardly any data.
constexpr int kAskMs = 600'000;

} // namespace corv::ctl
