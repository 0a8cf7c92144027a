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

// Adds that to the lines of the screen.
void addHere(const QJsonObject &here, QList<StatusLine> *lines);

} // namespace corv::ctl
