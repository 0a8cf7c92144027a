#pragma once

#include "common/Fd.h"

#include <QString>

namespace corv::ctl {

// Held while work goes on of which there may be one at a time; closing it ends the turn. path is the file that is
// locked, made readable to root alone where it is missing; its folder has to be there. Waits behind whoever holds it,
// and tells the terminal what of (other is the beginning of a sentence). None, with the reason in problem, where the
// file cannot be locked; none, with an empty one, where interrupted() ended the wait.
Fd takeTurn(const QString &path, const QString &other, QString *problem);

// Whether somebody has that turn at the moment. False as well where it cannot be looked at.
bool isTurnTaken(const QString &path);

} // namespace corv::ctl
