#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

namespace corv::ctl::moving {

// A load goes on past what fails, so a table may be there and be empty: each is counted in the dump and in the
// database.

// Counts both, the database with the account's own rights. dump: the path of the file that was loaded. Returns why rows
// are missing, or could be; uncounted gets the tables of which the account may not count the rows here. Takes about as
// long as reading both.
QString missingRowsHere(const QString &dump, const QString &account, QStringList *uncounted);

// The parts of it, for tests. What psql is given to count the rows of these tables.
QByteArray countingScript(const QMap<QByteArray, qint64> &dumped);

// What is missing by what it printed, and what that does not tell of.
QString missingBy(const QByteArray &printed, const QMap<QByteArray, qint64> &dumped, QStringList *uncounted);

} // namespace corv::ctl::moving
