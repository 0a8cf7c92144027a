#pragma once

#include "ctl/commands/Status.h"

#include <QJsonObject>
#include <QList>

namespace corv::ctl {

struct Session;

// What the agent does not tell of a server: the services that accounts need beside those of the settings, which
// accounts are suspended, what visitors of each site see, whether the newest backup was verified, and as lines what has
// no more to it: automatic updates that do nothing, copies elsewhere, certificates, failed services. Read of the server
// that the session's options name; empty where that cannot be had. replies are the agent's, now is in seconds since
// 1970.
QJsonObject readHere(const Session &session, const Replies &replies, qint64 now);

// Adds to the lines of the screen what readHere gave, and what it should have given and did not, as not known. newest
// is the name of the backup that those lines tell of.
void addHere(const QJsonObject &here, const QString &newest, QList<StatusLine> *lines);

} // namespace corv::ctl
