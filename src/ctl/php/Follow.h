#pragma once

#include "ctl/doctor/PhpPools.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>

namespace corv::ctl {

// A pool that is not where its account's state asks for.
struct StrayPool
{
    QString version;
    QString account;
    bool isParked = false; // whether it is to be put back in its place, not aside
};

// The pools that suspensions and resumptions have passed by: the agent sees those of the version in force alone, which
// are therefore left to it. wanted holds the states that the accounts' sites ask for.
QList<StrayPool> strayPools(const QList<PhpPools> &versions, const QString &inForce,
                            const QHash<QString, PoolState> &wanted);

// Puts right what commands for accounts have left under other PHP versions, goes on with a move that was cut off, and
// moves the accounts of versions that are not installed any more to the one in force. say tells of what is done.
// Returns what could not be done, empty for nothing.
QString followAccounts(const std::function<void(const QString &)> &say);

} // namespace corv::ctl
