#pragma once

#include "ctl/Client.h"

#include <QString>
#include <QStringList>

#include <functional>

namespace corv::ctl {

struct Session;

// The lines that a log has more than at the last look, where only its last lines can be seen: those of now behind the
// longest end of before that they begin with; all of them where nothing of before is left.
QStringList newLines(const QStringList &before, const QStringList &now);

// A log that is looked at again and again: the new lines at each look, printed on standard output as they come (on
// standard error with --json).
class LogFollower
{
public:
    // log: what it holds before the work begins, and belongs to earlier work.
    LogFollower(const Session &session, const QString &log);

    // Prints and gives back what is new.
    QStringList take(const QString &log);

private:
    const Session &m_session;
    QStringList m_seen;
};

// Asks for the status of some work, with pauses that grow to seconds, until isOver finds that it has ended. An agent
// that cannot be connected to for a while (it may be what is updated) is waited for, a minute at most. The answer is
// the last one.
Answer askUntil(Session &session, const QString &command, const std::function<bool(const QJsonObject &)> &isOver);

} // namespace corv::ctl
