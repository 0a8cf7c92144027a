#pragma once

#include "ctl/restore/State.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <sys/types.h>

namespace corv::ctl {

// Reads of this server what is written down of its accounts. All of it takes root.

// The state of each account, by the user database. Where PostgreSQL cannot be asked that is said in problem, and roles
// and databases are missing.
QList<AccountState> collectStates(QString *problem);

// The statement that tells of roles, databases and settings, and what a line of its answer adds to the state of the
// account it is about. False for a line that is about none of them.
extern const QString kRolesQuery;
bool addRole(const QByteArray &line, QList<AccountState> *states);

// The jobs of at of one user, the next first. isWhole, where it is given, becomes false where there are too many to be
// kept, or too large ones.
QList<KeptJob> jobsOf(uid_t uid, bool *isWhole = nullptr);

// What a regular file that nobody but root and its owner can put there holds, at most so many bytes; empty for none.
// Follows no link and never waits.
QByteArray boundedText(const QString &path, qint64 most);

} // namespace corv::ctl
