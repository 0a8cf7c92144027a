#pragma once

#include "ctl/move/Move.h"
#include "ctl/move/Plan.h"

#include <QList>
#include <QString>

#include <optional>

namespace corv::ctl {

struct Session;

// What a move says.

// Tells of the plan; of one that was not asked for by itself, to people alone. Gives the status to end with where
// something is in the way.
std::optional<int> tellPlan(const Session &session, const moving::Record &record, const moving::There &there,
                            const QList<moving::Check> &checks, bool isAll);

// Tells what became of it, and gives the exit status.
int tellMoved(const Session &session, const moving::Record &record, const moving::Moved &done);

// The part of it, for tests: of a move that has ended before its end, where the account is, and what to do next.
struct Ended
{
    QString sentence;
    QString hint;
};
Ended endOf(const moving::Record &record, const moving::Moved &done);

// The command that goes on with it.
QString goOnWith(const moving::Record &record);

} // namespace corv::ctl
