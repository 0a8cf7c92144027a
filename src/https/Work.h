#pragma once

#include <QString>

namespace corv::https {

// Asks the names that are due from the outside in, waits until Apache is done with the certificates that it is getting
// (at most two minutes: a reload in the middle of an order fails it, and failures count at the authority), and reloads
// Apache where that changes anything. Gives the exit status.
int work();

// Says of each certificate that it ends, once for each of the times at which somebody is to be told. Gives the exit
// status: 1 where anything was said.
int ends();

// Apache's message about one of its certificates, from its own user: leaves a note for the unit that runs the above.
// Gives the exit status; Apache repeats what was not taken.
int message(const QString &event);

// Leaves that note.
bool leaveNote(const char *name);

} // namespace corv::https
