#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

// One account's pool on its way from one PHP version to another.
struct MovingPool
{
    QString account;
    bool wasParked = false;     // put aside by a suspension
    bool becomesParked = false; // as the account's site asks for
};

// What is kept of a move while it is not done, so that the next one goes on with what was cut off.
struct MoveJournal
{
    QString from;
    QString to;
    QList<MovingPool> pools;
    QStringList well;      // the accounts whose site was well before
    bool isServed = false; // whether the new version serves all, so that there is no way but on
};

// Held by a move, or by what follows the accounts, while it is at work.
inline const QString kPhpLock = QStringLiteral("/run/corvane/php.lock");

// Keeps it in place of an earlier one. False where that cannot be written.
bool keepMove(const MoveJournal &journal);

// The one that was cut off, nothing where there is none.
std::optional<MoveJournal> readMove();

// Keeps one that readMove could not read under another name, since its being there starts corv-php.service. True when
// there was one. The caller has the turn.
bool putUnreadableMoveAside();

void removeMove();

} // namespace corv::ctl
