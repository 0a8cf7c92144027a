#pragma once

#include "agent/postgres/Lesser.h"

#include <QMap>
#include <QString>

// The way by which pg_restore, which runs as the system user postgres, comes to the server as an account's role. What
// it runs of the account's own (a function in a check of a table, for one) then has that role's rights and no more.
//
// pg_restore finds a socket in a folder that only postgres may enter. A process that stands for the account accepts one
// connection there, makes one of its own to the server, which lets it in for its user (peer), and passes on what either
// side says. Nobody but root can signal or trace it.
namespace corv::backup {

// How a connection over a relay ended.
struct Passage
{
    enum class End {
        Unused,  // nobody connected
        Refused, // the server did not let the account in, or could not be reached
        Broken,  // it ended before its client had said goodbye, or the server ended it
        Whole,
    };
    End end = End::Unused;
    QString reason; // of Refused and Broken: what the server said, else a sentence of our own
};

// Opens the way for an account, whose role has its user's name, by a process that is given back through relay. What is
// left of an earlier way goes. Returns why it cannot be opened, empty when it is; without
// the system user postgres there is neither a way nor a process.
QString openRelay(const QString &user, Lesser *relay);

// What leads a program of PostgreSQL over the relay, as the account's role.
QMap<QString, QString> relayEnvironment(const QString &user);

// Closes the way behind the program that used it, and tells how that went.
Passage closeRelay(Lesser *relay);

} // namespace corv::backup
