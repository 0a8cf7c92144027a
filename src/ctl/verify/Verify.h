#pragma once

#include "ctl/verify/Fault.h"
#include "ctl/verify/Holdings.h"
#include "ctl/verify/Verdict.h"

#include <QString>

#include <functional>

namespace corv::ctl {

// What is to be found out.
struct Search
{
    QString destination;
    QString backup;
    bool deep = false;     // restore each dump for a proof
    bool dueAlone = false; // with deep: those dumps whose turn it is, and nothing else
    qint64 now = 0;        // in seconds since 1970
    Bounds bounds;         // for each program
    // Told of each file before it is looked at, with how many are done and how many there are. May be empty.
    std::function<void(const QString &file, qsizetype done, qsizetype all)> progress;
};

// Looks at each file of a backup and keeps the verdict beside it. Between two files it waits, ten minutes at the most,
// as long as the agent has a request in hand, so that it holds none up for longer than one file, or one restore, takes.
// Ends early, with what is known by then, when interrupted() says so. Sets problem where nothing can be said or kept;
// empty otherwise.
Verdict verifyBackup(const Search &search, QString *problem);

} // namespace corv::ctl
