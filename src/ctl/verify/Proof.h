#pragma once

#include "ctl/verify/Fault.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

namespace corv::ctl {

struct SavedFile;

// What became of the proof that a dump can be restored.
struct Proof
{
    QString fault; // why it cannot be, as the end of a sentence that begins with its name; empty where it can
    QString note;  // why nothing, or not all of it, could be proved; empty where all was
    int tables = 0;
    qint64 rows = 0; // in them, counted in the new database
};

// Restores a dump into a database of its own, counts its rows there, and drops it again. Whatever the dump runs, it
// runs as a role that has no right anywhere else; what needs a superuser is left out and noted. bounds holds for each
// of its three programs. It ends early, dropped database included, when the process is interrupted (see InterruptGuard,
// which the caller has).
Proof proveDump(const QString &path, const Bounds &bounds);

// Drops what a proof has left that was killed. Returns why that cannot be done; empty where nothing is left.
QString clearProof();

// Counts the rows of each table as a dump has them, which has been opened, by the table's name as SQL has it. Nothing
// in the dump is run. What it returns has a fault, or a note, where they could not be counted; bounds holds for the
// program that reads it.
Proof countDumped(const SavedFile &saved, const Bounds &bounds, QMap<QByteArray, qint64> *rows);

// What the errors of pg_restore mean for the dump: a fault or a note.
Proof judgeErrors(const QByteArray &errors);

// The first table with fewer rows than the dump has of it, in a sentence; empty where there is none. counted holds the
// number of rows of each table of the dump, in its order.
QString missingRows(const QMap<QByteArray, qint64> &dumped, const QList<qint64> &counted);

} // namespace corv::ctl
