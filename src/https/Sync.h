#pragma once

#include <QtGlobal>

namespace corv::https {

// Whether HTTPS is switched on here.
bool isOn();

// How much a run takes on trust, and how long it waits for another one that is under way.
struct Manner
{
    qint64 trustedSeconds =
        0; // what Apache has come up with less long ago, and has not changed since, is not tried again
    int lockMilliseconds = 0;
    bool isForReload = false; // Apache reads all of it right after the run: it is marked where that has just come up
};
// For a start or reload that somebody waits for, and for a run that nobody does.
constexpr Manner kByReload{86400, 15000, true};
constexpr Manner kByWork{3600, 60000, false};

// Makes the twins of all account sites as they are now, tries them, and puts what Apache comes up with where its next
// read of its configuration finds it. What it does not come up with is left out, in the end all of it. Gives the exit
// status: 0 also where something was left out, which is told on standard error.
int sync(const Manner &manner);

// Forgets what was refused, and every pause before something is tried again. Gives the exit status.
int again();

// Takes all of HTTPS away after Apache has ended by itself with it, and starts Apache. Gives the exit status.
int rescue();

} // namespace corv::https
