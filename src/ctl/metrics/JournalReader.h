#pragma once

#include "ctl/metrics/AgentLines.h"

#include <QJsonObject>
#include <QString>

#include <optional>

namespace corv::ctl {

// How far the agent's lines have been counted.
struct JournalPlace
{
    qint64 since = 0; // when counting began, in seconds since 1970
    QString cursor;   // of the last entry that was counted; empty where there was none yet
    AgentCounts counts;
};

// As the state keeps it; nothing for what is none.
QJsonObject objectOf(const JournalPlace &place);
std::optional<JournalPlace> placeIn(const QJsonObject &object);

// The arguments of the journalctl that prints what comes after the place, with the entry of its cursor before it where
// that is still there: one that was cleared away is passed over by the journal, and no entry is lost by that.
QStringList journalArguments(const JournalPlace &place);

// Counts what the agent has written to the journal since, and moves the place behind it. now is the time in seconds
// since 1970; from a place in the future, that of a clock that was wrong, it begins anew. Returns why not all of it was
// counted; empty where it was. What was counted is right in either case, and the next time goes on from there.
QString countOn(JournalPlace *place, qint64 now);

} // namespace corv::ctl
