#pragma once

#include "ctl/offsite/Restic.h"

#include <QString>

namespace corv::ctl {

// Finds out by trying what a place does.

// Writes something to it and reads it back. Returns why that cannot be; empty on success.
QString tryWriting(const Repository &repository);

// Whether the place lets this server forget.
enum class Forgetting { Refused, Possible, Unknown };

// Tries to make the place forget what was written to try it. problem says why that cannot be told.
Forgetting tryForgetting(const Repository &repository, QString *problem);

// Makes the repository where there is none yet. Returns why that cannot be; empty on success, also where there is one
// that the key fits.
QString makeRepository(const Repository &repository);

} // namespace corv::ctl
