#pragma once

#include "ctl/commands/Status.h"

#include <QJsonObject>
#include <QList>

namespace corv::ctl {

struct Session;

// What the agent does not tell of a server: the services that accounts need beside those of the settings, which
// accounts are suspended, and what visitors of each site see. Read of the server that the session's options name; empty
// where that cannot be had.
QJsonObject readHere(const Session &session);

// Adds how the copies of the backups elsewhere are, where the settings name a place for them and the caller may know.
void addOffsite(const Session &session, qint64 now, QList<StatusLine> *lines);

// Adds how many sites have a certificate and when the first of these ends, where HTTPS is on and the caller may know.
void addHttps(const Session &session, qint64 now, QList<StatusLine> *lines);

// Adds to the lines of the screen what readHere gave.
void addHere(const QJsonObject &here, QList<StatusLine> *lines);

} // namespace corv::ctl
