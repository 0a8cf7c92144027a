#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

#include <sys/types.h>

namespace corv::ctl {

// What the archive of a home says of one entry.
struct ArchiveEntry
{
    QByteArray path; // below the home
    mode_t mode = 0; // the permission bits
    bool isFolder = false;
    bool isPlain = false; // a regular file or a folder, the only ones with an access of their own
    bool isWebs = false;  // whether its group is the web server's
    bool isLink = false;  // a symbolic link, which has a group and nothing else of its own
};

// The entry that a line of "tar -tv --quoting-style=escape --quote-chars=' '" tells of; nothing for the home itself,
// for what lies outside of it and for what is no such line.
std::optional<ArchiveEntry> parseArchiveLine(const QByteArray &line, const QByteArray &account);

// The path of an account's home in a backup, empty when there is none; nothing on the way may be a link.
QString homeArchive(const QString &destination, const QString &backup, const QString &account);

// What the archive holds, in its order: all of it, or, where there are paths, what is at and below them and the folders
// around them. Sets problem where it cannot be read.
QList<ArchiveEntry> readArchive(const QString &archive, const QString &account, const QList<QByteArray> &paths,
                                QString *problem);

} // namespace corv::ctl
