#pragma once

#include "common/Fd.h"

#include <QString>

namespace corv::ctl {

struct Session;

// The largest file that goes through the transfer directory, in bytes. It is the directory of this server, or that of
// the server which the session's options name: a corvctl over there has its hands in it then.
constexpr qint64 kLargestTransfer = 268'435'456;

// What became of a transfer: kDone, or another exit status and why, as a sentence. An interrupted one has failed too.
struct Transferred
{
    int status = 0;
    QString problem;
};

// A random name for an upload.
QString transferName();

// Copies what source holds into the transfer directory under a name, with a bar on the terminal that speaks of what
// (escaped). Nothing is left there when that fails.
Transferred putIntoTransfer(const Session &session, const Fd &source, const QString &name, const QString &what);

// The same for a corvctl elsewhere that sends the file in pieces: each behind its length, four bytes with the highest
// first, and an empty one at the end, so that what was cut off is known to be.
Transferred putPiecesIntoTransfer(const Session &session, const Fd &source, const QString &name);

// Takes a file of so many bytes (negative: not known) out of the transfer directory, likewise: copies it to target and
// removes it, also where that fails. The name may be any text: one that leads elsewhere is refused.
Transferred takeFromTransfer(const Session &session, const QString &name, qint64 size, const Fd &target,
                             const QString &what);

// Removes a file from the transfer directory, if it is there. Nothing happens to one that the name leads to elsewhere.
void removeFromTransfer(const Session &session, const QString &name);

} // namespace corv::ctl
