#pragma once

#include "common/Fd.h"
#include "common/HttpsState.h"

#include <QByteArray>

#include <optional>

namespace corv::https {

// Forgets each time in the state that lies further ahead than any pause is long: a clock that was wrong has left it,
// and nobody waits a year for what it was right to wait an hour for. now is in seconds since 1970.
void forgetFuture(State *state, qint64 now);

// Says something on standard error, which is Apache's journal or that of a unit of ours.
void say(const QString &sentence);

// The lock that whoever changes the state or what is generated holds; empty where it is not to be had in so many
// milliseconds.
Fd takeLock(int milliseconds);

// The state as it was kept; an empty one where none was, and, which is said, where it cannot be used.
State loadState();

// Keeps the state. What cannot be kept is said; nothing but speed depends on it.
void saveState(const State &state);

// What Apache was last given to read; nothing where that is missing.
std::optional<QByteArray> readLive();

} // namespace corv::https
