#pragma once

#include "ctl/move/HttpsAlong.h"
#include "ctl/move/Journal.h"
#include "ctl/restore/State.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

struct Options;

namespace moving {

class Shell;

// What an account is on the server that it is to come from.
struct There
{
    AccountState state;
    QStringList sitesBeside;  // sites that serve it beside its own
    qint64 databaseBytes = 0; // as PostgreSQL keeps it
    int postgres = 0;         // its major version; 0 where it was not told
    qint64 homeBytes = -1;    // on its disk, without tmp; -1 where it was not told
    qint64 homeEntries = -1;  // files and folders, likewise
    bool hasRsync = false;
    bool hasLeft = false; // for another server than the one that asks
    HttpsThere https;
};

// Asks the server host for the account, by its corvctl and by tools that walk its home with its own rights. Nothing
// there is changed but for the file of states, which is written anew. Nothing, with the reason in problem and the exit
// status, where it cannot be asked or has no such account. record: of the move that asks, with a name that has been
// checked.
std::optional<There> lookThere(const Options &options, const Record &record, QString *problem, int *status);

// The state alone, over a shell of root's there. Nothing, with the reason in problem, where there is none.
std::optional<AccountState> stateThere(Shell *there, const QString &account, QString *problem);

// The parts of it, for tests. What the lines of measures add; lines that are none are passed over.
void addMeasures(const QByteArray &output, There *there);

} // namespace moving
} // namespace corv::ctl
