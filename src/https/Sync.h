#pragma once

#include <QtGlobal>

namespace corv::https {

// Whether HTTPS is switched on here.
bool isOn();

// Makes the twins of all account sites as they are now, tries them, and puts what Apache comes up with where its next
// read of its configuration finds it. What it does not come up with is left out, in the end all of it. What it has come
// up with less than so many seconds ago, and has not changed since, is not tried again. Gives the exit status: 0 also
// where something was left out, which is told on standard error.
int sync(qint64 trustedSeconds);

// Forgets what was refused, and every pause before something is tried again. Gives the exit status.
int again();

// Takes all of HTTPS away after Apache has ended by itself with it, and starts Apache. Gives the exit status.
int rescue();

} // namespace corv::https
