#pragma once

#include <QByteArray>
#include <QDate>
#include <QList>
#include <QString>
#include <QStringView>

namespace corv::backup {

// What lies in the destination. A finished backup is a folder named by the local time of its start, as in
// 2025-03-09_031500; while it is made, ".partial-" stands before that.

constexpr QStringView kStampFormat = u"yyyy-MM-dd_HHmmss";
constexpr QStringView kPartialPrefix = u".partial-";

// Whether name has the form of a finished backup's, be it a valid time or not.
bool isBackupName(const QString &name);

// When a backup began, in seconds since 1970, by its name in local time; 0 for what is no such name.
qint64 timeOf(const QString &name);

// A folder inside another; a link to one is none.
struct Folder
{
    QByteArray name;
    QDate modified; // local date of the last change of what it holds directly
};

// The folders directly inside the one with that path, hidden ones included, in the order in which the file system has
// them. Empty when it cannot be read.
QList<Folder> foldersIn(const QString &path);

// The name of the newest finished backup in the folder with that path; empty where there is none.
QString newestIn(const QString &path);

// Whether the folder is to be deleted today: a finished backup that is more than keepDays calendar days old, or an
// unfinished one that was last changed before today. Whatever else lies there stays.
bool isPast(const Folder &folder, const QDate &today, int keepDays);

// The bytes in the regular file with that path, or in all regular files below the folder with that path. Links count
// nothing.
qint64 sizeOf(const QString &path);

} // namespace corv::backup
