#pragma once

#include "ctl/php/Move.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

// The files of the pools that a move is about, in both versions.

// Where the new version's pool belongs.
QString targetOf(const MovePlan &plan, const MovingPool &pool);

// The pool's text: what the new version has already counts. Nothing where it cannot be read.
std::optional<QByteArray> textOf(const MovePlan &plan, const MovingPool &pool);

// The accounts that have a socket in the old version, or are to have one in the new.
QStringList servedBefore(const MovePlan &plan);
QStringList servedAfter(const MovePlan &plan);

// Takes the pools of accounts that are deleted by now from the plan, and what is left of them from both versions: it
// would keep an FPM from coming up.
void leaveOutGone(MovePlan *plan);

// Lays the pools beside their places in the new version, under names that no FPM reads. Returns why that could not be.
QString stagePools(const MovePlan &plan);

// Puts what lies beside in its place. Returns why that could not be.
QString placePools(const MovePlan &plan);

// Removes what lies beside.
void unstagePools(const MovePlan &plan);

// Of pools that both versions have, removes the new one's, or the old one's.
void unplacePools(const MovePlan &plan);
void settlePools(const MovePlan &plan);

} // namespace corv::ctl
