#pragma once

#include "ctl/restore/Sources.h"

#include <QString>

namespace corv::ctl {

// What became of an unpacking.
struct Unpacked
{
    QString problem;            // why it ended, empty when all is in place
    bool isInterrupted = false; // by a signal
    qint64 entries = 0;         // files and folders
};

// Puts what the archive of a source holds in the place of what the home of an account has that has just been made. It
// is unpacked by tar with the account's own rights into a folder of the home, and gets modes and groups by the
// archive's names of owners: what was www-data's is, all else is the account's. No file gets a special bit, nothing is
// written outside of what the account may write to, and links lead where they did. Then all of it is moved into place
// at once.
Unpacked unpackHome(const Source &source, const QString &account);

// Ends what an earlier attempt may have left running as the account's user, and removes what it had unpacked.
void clearAttempt(const QString &account);

} // namespace corv::ctl
