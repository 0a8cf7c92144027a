#pragma once

#include "common/Account.h"
#include "ctl/RestoreJournal.h"
#include "ctl/doctor/Finding.h"

#include <QList>
#include <QString>

namespace corv::ctl {

// A restore of an account that is not done.
struct CutOffRestore
{
    Journal journal;
    bool hasUser = false;    // whether there is a user of that name
    bool isHalfDone = false; // whether that is what the restore has made
};

// Those that nobody is at work on.
QList<CutOffRestore> readCutOff();
QList<Finding> checkCutOff(const QList<CutOffRestore> &restores);

// The accounts that drills have left, of all accounts; none while one is at work.
QStringList leftDrills(const QList<hosting::User> &accounts);
QList<Finding> checkLeftDrills(const QStringList &names);

// The command that goes on with a restore.
QString goOnWith(const Journal &journal);

} // namespace corv::ctl
