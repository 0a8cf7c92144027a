#pragma once

#include "ctl/php/Move.h"

#include <QString>

namespace corv::ctl {

// Gives accounts their sockets' names again that a move which was killed has left them without.
void mendNames(const MovePlan &plan);

// Makes all as it was before, while the old version serves what it did: its pools are where they were until the move is
// over. The journal stays. Returns what could not be.
QString goBack(MovePlan plan);

// Takes from the old version what the new one serves, and forgets the move. Where the old version is gone, what the new
// one does not have stays where the next attempt finds it. Returns what could not be.
QString finishMove(MovePlan plan);

} // namespace corv::ctl
