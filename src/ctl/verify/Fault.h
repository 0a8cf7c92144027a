#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace corv::ctl {

// What reading one saved file may cost at most.
struct Bounds
{
    int milliseconds = 3'600'000;       // of each program that reads it
    qint64 memoryBytes = 2'147'483'648; // of each such program
};

// Why an archive (NAME-home.tar.gz, config.tar.gz) cannot be unpacked, as the end of a sentence that begins with its
// name; nothing where all of it is whole, its checksum and its list of files included. It is read by programs without
// any right, which get nothing but the open file: what it holds was made by an account's user.
std::optional<QString> faultOfArchive(const QString &path, const Bounds &bounds);

// As faultOfArchive, for an archive that has to hold the home of that account and nothing beside it.
std::optional<QString> faultOfHome(const QString &path, const QString &account, const Bounds &bounds);

// Why a dump (NAME-db.dump, panel.dump) cannot be restored, likewise; nothing where every entry of it can be read to
// its end. No database server is asked, and nothing in the dump is run.
std::optional<QString> faultOfDump(const QString &path, const Bounds &bounds);

// As faultOfDump, for a dump that has to be one of the database of that name.
std::optional<QString> faultOfDatabase(const QString &path, const QString &database, const Bounds &bounds);

// The name of the database that a dump in PostgreSQL's custom format was made of, read from its first bytes; nothing
// where they are none of such a dump.
std::optional<QByteArray> databaseInDump(const QByteArray &beginning);

} // namespace corv::ctl
