#pragma once

#include <QString>

struct stat;

namespace corv {

// Whether root alone can decide what a file says that root believes: who could write to it, or put another in its
// place, would be root with it.

// Whether the file or folder belongs to root, and nobody else may write to it.
bool isRootsAlone(const struct stat &status);

// The first folder on the way to a file that others than root may write to, by every link on that way, or what cannot
// be looked at; empty where there is none. path is absolute.
QString foreignFolder(QString path);

// Why root should not believe what the file with that absolute path says, empty where it may. It is the end of no link.
QString refusalOfFile(const QString &path);

} // namespace corv
