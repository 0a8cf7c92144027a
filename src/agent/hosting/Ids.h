#pragma once

#include "common/FormerIds.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace corv::hosting {

// The ids of a user; nothing when there is no such user or these are not an account's.
std::optional<Ids> idsOf(const QString &user);

// Keeps ids from being given out again, from now on and for good. Call it before the user is removed, so that there is
// no moment at which they are free; the user itself goes on as before. False when a record cannot be written.
bool keepIds(const Ids &ids);

// Runs useradd with these arguments in surroundings in which no link in a home leads anywhere and in which it gives out
// no id that is kept, also where the C library does not know of these. Returns the runner's message.
QString addUser(const QStringList &args);

// A text of /etc/login.defs in which ids are given out from first on; nothing where so few would be left that the
// server had better use up the gaps below.
std::optional<QByteArray> loginDefsFrom(const QByteArray &text, id_t first);

} // namespace corv::hosting
