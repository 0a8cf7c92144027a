#pragma once

#include "ctl/screen/Table.h"

#include <QJsonArray>
#include <QJsonObject>

namespace corv::ctl {

// The backups of a reply of backup.status, each that was verified with a member "verified": when ("checked", and
// "proved" for the newest proof by a restore, in seconds since 1970) and what is wrong ("faults"). They are asked of
// the server that the session's options name, and readable to root there.
QJsonArray withVerdicts(const Session &session, const QJsonObject &reply);

// When a backup with that member was verified, and how many faults were found; nothing() where it was not.
Cell verifiedOf(const QJsonObject &backup);
Cell faultsOf(const QJsonObject &backup);

// The sentences on what is wrong with it.
QStringList faultSentences(const QJsonObject &backup);

} // namespace corv::ctl
