#pragma once

#include "common/BackupConfig.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

// What an account can be brought back from: a backup of this server, the archives of its deletion, or a folder of the
// same form as a backup from elsewhere.
struct Source
{
    enum class Kind { Backup, Deletion, Folder };

    Kind kind = Kind::Folder;
    QString from;    // as it is given to --from
    QString account; // whose it is
    QString home;    // the path of the home's archive, empty for none
    QString dump;    // likewise of the database
    QString state;   // likewise of the file with its state
    QString domain;  // as the manifest has it; empty where there is none
    qint64 made = 0; // seconds since 1970
    qint64 homeBytes = 0;
    qint64 dumpBytes = 0;
    qint64 checked = 0; // when both archives had been read to their ends, in seconds since 1970; 0 for never
    QString fault;      // what was found wrong with one of them then
};

// What there is for an account on this server, the newest first.
QList<Source> sourcesOf(const backup::Config &config, const QString &account);

// The accounts of which backups or archives of deletions have anything, by name.
QStringList accountsKnown(const backup::Config &config);

// What was meant: the name of a backup, what the names of a deletion's archives have in common, the path of one of
// them, or the path of a folder. Nothing, with the reason in problem, where it holds nothing of the account, or could
// have been written by others than root: what is in it is done as root.
std::optional<Source> findSource(const backup::Config &config, const QString &account, const QString &from,
                                 QString *problem);

// The accounts that a folder of a backup's form holds anything of, by name.
QStringList accountsIn(const QString &folder);

// What such a folder holds of one, or one that holds the archives themselves.
std::optional<Source> sourceIn(const QString &folder, const QString &account);

// Why not all that a source names is root's alone to write to and to put there, empty when it is.
QString refusalOf(const Source &source);

} // namespace corv::ctl
