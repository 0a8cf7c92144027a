#pragma once

#include "agent/Reply.h"

#include <QByteArray>
#include <QString>

namespace corv::files {

// The operations of the file helper, on absolute paths as the file system knows them, with the rights of whoever runs
// them. Failures that have no message of their own carry the system's error text.

// The most bytes of a text that the editor takes: 2 MiB.
constexpr qint64 kMaxText = 2'097'152;

// How many entries of a folder are told.
constexpr qsizetype kMaxEntries = 5'000;

// entries and truncated: the first entries of a folder, folders first, then by name without regard to letter case.
Reply list(const QByteArray &path);

// content: the text of a file in UTF-8.
Reply read(const QByteArray &path);

// size: makes standard input, to its end, the content of a file, all of it or nothing. What a link names is written,
// not the link.
Reply write(const QByteArray &path);

// Makes one folder.
Reply makeFolder(const QByteArray &path);

// Moves an entry to a new path, never onto one that exists.
Reply rename(const QByteArray &source, const QByteArray &target);

// Deletes an entry, a folder with all that is in it. Links are deleted themselves, never followed.
Reply remove(const QByteArray &path);

// Copies a file to standard output. Returns why it cannot, empty on success.
QString download(const QByteArray &path);

} // namespace corv::files
