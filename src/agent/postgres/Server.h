#pragma once

#include "common/Fd.h"

#include <QByteArray>

#include <optional>

// The PostgreSQL server of this host, as psql finds it without being told: behind a socket in /run/postgresql.
namespace corv::postgres {

// The path of its socket: the one of port 5432, else the only one that there is. Empty where there is none, or several
// of which none is the usual one.
QByteArray serverSocket();

// A connection to that socket; without a descriptor where nothing listens there.
Fd connectTo(const QByteArray &socket);

// Asks the server as its superuser, who is let in as the system user of that name, and gives the first column of the
// statements' first row. It does so in a process of that user; a word of at most 64 bytes comes through. Nothing where
// the server cannot be asked, refuses, or answers with no row within ten seconds.
std::optional<QByteArray> ask(const QByteArray &socket, const QByteArray &statements);

} // namespace corv::postgres
