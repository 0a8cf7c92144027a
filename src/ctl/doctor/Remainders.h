#pragma once

#include "ctl/doctor/Accounts.h"
#include "ctl/doctor/Database.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

// A program with its arguments, to be run as root.
struct Step
{
    QStringList command;
    QString output; // the file that its standard output goes to, empty for none
};

// Something that stands in the way of an account's creation, and what takes it out of the way; no steps where it is not
// what an account leaves, but somebody's own.
struct Remainder
{
    QString what;
    QList<Step> steps;
};

// What a name has on this server.
struct NameFacts
{
    QString name;
    bool hasUser = false;
    std::optional<AccountParts> account; // where that user is an account's
    bool hasEmptyGroup = false;          // a group of that name, of no system's number, without a user or a member
    bool hasSite = false;                // a file of a site of that name
    QStringList pools;                   // the paths of pools of that name, parked ones among them
    bool homeHoldsLinks = false;         // where the agent would work as root
    std::optional<Databases> databases;  // nothing where PostgreSQL cannot be asked
};

// What stands in the way of a creation, in the order in which it is to go. stamp tells archives made now from others,
// as the agent writes it. Nothing for an account that is whole and for a user of the system: the agent says what is
// true.
QList<Remainder> remaindersOf(const NameFacts &facts, const QString &stamp);

// What drops a database whatever its owner has made of it, after a dump into that file where one is named. The name
// needs no quotes.
QList<Step> droppingSteps(const Database &database, const QString &dump = {});

// The steps as one line for the shell.
QString shellLine(const QList<Step> &steps);

// What only half an account is: whether nothing but its user, and perhaps its role, is there.
bool isHalfThere(const AccountParts &account, const std::optional<Databases> &databases);

// The command that takes an account away of which parts are missing. Forced, it makes what a deletion insists on; where
// a deletion has made its archives, it must not be: they are looked at then, and damaged ones stop it.
QString finishDeletion(const QString &account, bool isForced);

} // namespace corv::ctl
