#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/doctor/Sites.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// What accounts have in the folder of pools of one PHP version.
struct PhpPools
{
    QString version;
    bool isInstalled = false; // whether its FPM is there; its folder outlives it
    QStringList live;         // the accounts that have a pool there
    QStringList parked;       // those whose pool a suspension has put aside there; some are in both
    QStringList nobodys;      // the paths of pools, parked or not, of users that are none
    bool hasOthers = false;   // whether it has pools that are no account's, so that it starts without those
};

// Whether a version's FPM is there.
bool isFpmInstalled(const QString &version);

// Whether it has any pool at all: it does not start without, nor come back from a reload.
bool hasPools(const QString &version);

// Whether a word is the number of a PHP version, and safe as a part of paths and of units' names.
bool isPhpVersion(const QString &word);

// All versions that have a folder of pools, the lowest first. With a problem, and none, where the users of this server
// cannot be read: every pool would then seem to be nobody's.
QList<PhpPools> readPhpPools(QString *problem);

// Whether there is surely no user of that name; false where that cannot be told.
bool isNoUser(const QString &name);

// What state an account's site asks its pool to be in; Any where the site is not as the agent writes it.
enum class PoolState { Live, Parked, Any };
PoolState wantedState(const QString &account);

// The names, as words for the shell, that the FPM of a version would find in its way in /run/php while it does not run:
// those of its accounts' sockets that are there. All at once where no other version has any.
QStringList socketsLeftBy(const QString &version, const QList<PhpPools> &versions);

// What is wrong with pools under other versions than the one in force (inForce, empty for none), all accounts together.
// cutOff names the two versions of a move that was cut off, empty for none.
QList<Finding> checkPhpPools(const QList<PhpPools> &versions, const QString &inForce, const QStringList &cutOff);

// Processes of pools that somebody has stopped, by their accounts' names, and whether the unit runs that ends them.
QList<Finding> checkStoppedPhp(const QStringList &accounts, bool isWatched);

} // namespace corv::ctl
