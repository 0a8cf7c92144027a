#pragma once

#include "ctl/move/Journal.h"
#include "ctl/move/Plan.h"

#include <QString>
#include <QStringList>

namespace corv::ctl {

struct Options;

namespace moving {

// What is otherwise where an account comes back to the server that it left: it is here, suspended, as it was when it
// left, and its names are led on from here.

// The record of such a way back, which nothing is kept of yet. Returns in problem why this account cannot come back
// that way: it is not one that left.
Record recordOfBack(const QString &account, const QString &host, QString *problem);

// The checks of a plan, less those that find the account itself in its own way, and with what has to be so of it.
QList<Check> checksOfBack(const There &there, const Here &here, const Record &record);

// Lets the account's role in, without the settings that it had here, or keeps it out again as a suspension does.
// Returns why that failed.
QString letRoleIn(const QString &account, bool isAllowed);

// Takes away what the account's user here had to run by itself, before what it has by now is put in its place.
void clearJobs(const QString &account);

// Ends what led its names away from here. Returns why that failed.
QString endLeaving(const Options &options, const Record &record);

} // namespace moving
} // namespace corv::ctl
