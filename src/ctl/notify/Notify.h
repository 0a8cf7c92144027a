#pragma once

#include "ctl/notify/Message.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

class QSettings;

namespace corv::ctl {

// Who is told of a failure, as the settings say.
struct Ways
{
    QStringList mail;     // users and addresses
    QStringList command;  // a program with its arguments
    QStringList problems; // why something that is set is of no use, a sentence each

    [[nodiscard]] bool areNone() const
    {
        return mail.isEmpty() && command.isEmpty();
    }
};

// The settings notify/mail and notify/command. What is of no use is left out and told among the problems.
Ways waysIn(const QSettings &settings);

// What is wrong with the programs that the ways need: a sentence and the shell command that mends it, for each.
struct Missing
{
    QString problem;
    QString mend;
};
QList<Missing> missingFor(const Ways &ways);

// One way that was tried: to whom, and why it failed (empty where it did not).
struct Told
{
    QString way;
    QString to;
    QString problem;
};

// Tells of an event by every way there is, one after the other; each has a minute.
QList<Told> tell(const Ways &ways, const Event &event);

// What is to be told of a unit's last run, asked of systemd and of its journal.
Event eventOf(const QString &unit);

// What a test tells.
Event testEvent();

} // namespace corv::ctl
