#pragma once

#include "ctl/restore/Sources.h"

#include <QString>

namespace corv::ctl {

// What became of it.
struct SetAside
{
    QString folder;  // its name in the home; empty where nothing had to be kept
    QString problem; // why it could not be, empty when all went well
};

// Keeps what the home of an account has, before the archive of a source takes its place, in a folder of the home: where
// any file of it was changed since a time in seconds since 1970, and so is not what the account was made with.
SetAside setAside(const Source &source, const QString &account, qint64 made);

// The part of it that is done with the account's rights, for tests: moves these entries of the folder home, as far as
// they are there, into a new folder of it if anything in one of them was changed since. Returns "kept", nothing where
// there is nothing to keep, and else why not.
QByteArray setAsideHere(const QByteArray &home, const QList<QByteArray> &names, const QByteArray &folder, qint64 made);

} // namespace corv::ctl
