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

// The text of /etc/login.defs as useradd is to see it: ids are given out from first on, unless that is 0 or so few
// would be left that the server had better use up the gaps below; and a user gets no subordinate ids, which would be
// the next one's when he is gone, with all processes and files that he left under them.
QByteArray loginDefsFrom(const QByteArray &text, id_t first);

} // namespace corv::hosting
