#pragma once

#include <QList>

#include <functional>

namespace corv::https {

enum class Verdict {
    Up,    // Apache came up
    Down,  // it did not
    NoTime // nobody waits any longer
};

// What of so many parts Apache comes up with, by their places.
struct Sifted
{
    QList<int> good;               // in order
    QList<int> bad;                // each alone keeps it from coming up
    QList<int> undecided;          // there was no time for them; left out as well
    Verdict verdict = Verdict::Up; // on none of them at all, with which it has to come up first
};

// Tries all parts at once, and where Apache does not come up with them, without any and then by halves, so that one bad
// part among a thousand is found in some twenty attempts. comesUp says what becomes of Apache with the parts at these
// places.
Sifted sift(int count, const std::function<Verdict(const QList<int> &)> &comesUp);

} // namespace corv::https
