#pragma once

#include "https/Names.h"

#include <QStringList>

namespace corv::https {

// So many days before the certificate's end somebody is to be told by now: 30, 14 or 3; 0: not yet. Apache renews with
// a third of the whole time left, so what lies before that is passed over for certificates that are good for a short
// time.
int warningDays(const Certificate &certificate, qint64 now);

// A sentence for each certificate of which somebody is to be told that it ends, and was not told before; state
// remembers it. now is in seconds since 1970.
QStringList newWarnings(const QList<Candidate> &candidates, State *state, qint64 now);

} // namespace corv::https
