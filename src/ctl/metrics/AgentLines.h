#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QString>

#include <optional>

namespace corv::ctl {

// What the agent's lines in the journal count up to.
struct AgentCounts
{
    QMap<QString, qint64> ok;     // requests that were done, by command
    QMap<QString, qint64> failed; // those that were not
    qint64 unknown = 0;           // requests with a command that there is not
    qint64 refused = 0;           // connections of users who may not

    friend bool operator==(const AgentCounts &, const AgentCounts &) = default;
};

// An entry of the journal, as far as it is of use.
struct JournalEntry
{
    QString cursor;
    QString message; // empty for one that is not the agent's own word
};

// The program that the agent is.
inline const QString kAgentProgram = QStringLiteral("/usr/libexec/corvane/corv-agent");
inline const QString kAgentUnit = QStringLiteral("corv-agent.service");

// An entry in journalctl's JSON; nothing where it is none, or has no place to go on from. Any user may write a line
// that looks like the agent's, under any program's name, and the agent's unit also runs programs as accounts: only what
// the journal itself knows of the writer counts, that is unit, user and executable.
std::optional<JournalEntry> parseEntry(const QByteArray &line);

// Whether text is a cursor of the journal's.
bool isCursor(const QString &text);

// When the entry with that cursor was written, in microseconds since 1970; 0 where it does not tell.
qint64 timeOfCursor(const QString &cursor);

// Counts one message of the agent's. A command that is none of the agent's counts nowhere.
void count(const QString &message, AgentCounts *counts);

// As the state keeps them. Nothing for what is none: a command that there is not, a number below 0.
QJsonObject objectOf(const AgentCounts &counts);
std::optional<AgentCounts> countsIn(const QJsonObject &object);

} // namespace corv::ctl
