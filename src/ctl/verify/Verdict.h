#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

// What was found out of one file of a backup. Times are seconds since 1970; 0 for never.
struct FileVerdict
{
    QString file;
    qint64 bytes = 0;
    qint64 checked = 0; // when it was read to its end
    QString fault;      // the end of a sentence that begins with the file; empty where it is whole
    qint64 proved = 0;  // when it was restored for a proof
    int tables = 0;     // that were counted then
    qint64 rows = 0;    // in them
    QString note;       // what could not be proved, and why
};

// What was found out of a backup.
struct Verdict
{
    QString backup;
    qint64 checked = 0; // when all of it was read last
    QList<FileVerdict> files;
};

// Beside the backup, not in it: a backup that is made is never written to again. Neither the list of backups nor what
// clears old ones away looks at files in that place.
QString verdictPath(const QString &destination, const QString &backup);

// The verdict on a backup, nothing where there is none or it cannot be read.
std::optional<Verdict> readVerdict(const QString &destination, const QString &backup);

// Keeps a verdict, in place of an earlier one, readable to root alone. False where that fails.
bool keepVerdict(const QString &destination, const Verdict &verdict);

// Removes the verdicts on backups that are not there any more.
void clearVerdicts(const QString &destination);

// As the file holds it, and --json prints it.
QJsonObject objectOf(const Verdict &verdict);
Verdict verdictIn(const QJsonObject &object);

// A sentence for each file that is not whole.
QStringList faultsIn(const Verdict &verdict);

// Puts what was found out now in the place of what was known of the same files; the rest stays known.
void merge(const QList<FileVerdict> &found, Verdict *verdict);

} // namespace corv::ctl
