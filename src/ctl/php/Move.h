#pragma once

#include "ctl/php/MoveJournal.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace corv::ctl {

// What a move would do.
struct MovePlan
{
    QString from;
    QString to;
    QList<MovingPool> pools;
    QStringList nobodys;    // the paths of pools that are dropped in both versions, since their users are gone
    QStringList missing;    // modules of the old version that the new one has not
    bool canGoBack = false; // whether the old version's FPM is still there
    bool empties = false;   // whether the old one is left without any pool, with which it does not start
    std::optional<MoveJournal> cutOff; // the move that this one goes on with
};

// What became of it.
struct Moved
{
    QString problem;         // empty when all went well
    bool wentBack = false;   // whether all is as it was
    QStringList moved;       // the accounts
    QStringList dropped;     // the paths of pools of nobody
    QStringList bad;         // the accounts whose site was well before and is not now
    qint64 milliseconds = 0; // for which the accounts had no PHP
};

// What there is to be moved. Nothing, with the reason and what can be done in problem and hint, where it cannot be.
std::optional<MovePlan> planMove(const QString &from, const QString &to, QString *problem, QString *hint);

// Moves the pools. The caller has the turn (kPhpLock); say tells of each step. Killed at any step, it goes on when it
// is planned and called again.
Moved movePools(const MovePlan &wanted, const std::function<void(const QString &)> &say);

// Makes all as it was before a move that was cut off and cannot be gone on with; where the old version is gone, leaves
// what the new one has. Returns what could not be.
QString undoMove(const MoveJournal &journal);

// Waits until the agent works on no request: seconds at most.
void awaitIdleAgent(int seconds);

// Removes pools whose users are still none. Returns those that were removed.
QStringList dropNobodys(const QStringList &paths);

} // namespace corv::ctl
