#pragma once

#include "common/BackupConfig.h"
#include "ctl/move/Shell.h"

#include <QString>
#include <QStringList>

namespace corv::ctl {

struct Session;

namespace moving {

// The words of the command that dumps an account's database on the old server.
QStringList dumpCommand(const QString &account);

// Writes what it prints into the account's file here, a new one of root's alone, but no more than half of what is free
// there. Returns why it is not whole: the command's own end says whether it is.
QString takeDump(Remote *from, const QString &account);

// Reads that file to its end, as a program without rights does. Returns what is wrong with it.
QString checkDump(const QString &account);

// Has the agent load it as the account's own role, in the place of what the database has. tables gets how many it has
// then, and uncounted those whose rows the account may not count. Returns why not all of it is there: tables and rows.
QString loadDump(Session &session, const backup::Config &config, const QString &account, int *tables,
                 QStringList *uncounted);

// Removes the file.
void dropDump(const QString &account);

} // namespace moving
} // namespace corv::ctl
