#pragma once

#include "ctl/move/Shell.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace corv::ctl::moving {

// Which of the two servers has an account is decided on the old one, by the name of a file of root's there, and by
// whoever renames it first: this server, once all is here, or a timer over there that brings the account back on-line.
// A name is changed once and by one, and it outlives a restart of that server. Whose move it is about is told by a
// second name, which has the move's word in it, so that of two new servers neither takes the other's verdict for its
// own. word: the move's, see newWord; empty for one that was begun when there were none, and whose file has one name.

// A word for a move: digits and letters, which nobody guesses.
QString newWord();

// Forgets there that an account of that name has left before: its file would be taken for the verdict on this move. One
// that is still suspended is another server's. Returns why that cannot be done, empty where it was.
QString forgetEarlier(Shell *there, const QString &account);

// Lays the file down and starts the timer, for an account that is on-line there. Returns why that cannot be: another
// server may have begun to take it.
QString beginSwitch(Shell *there, const QString &account, const QString &word, bool isOnline, int seconds);

// Takes the account off-line there.
QString suspendThere(Shell *there, const QString &account);

// Has its database there take no more rows, unless isFrozen, which is the administrator's own choice then, and counts
// in *written what has ever been written; -1 where that is not told. Sessions can have their way all the same.
QString freeze(Shell *there, const QString &account, bool isFrozen, qint64 *written);

// Whether nothing was written since, for an account that nobody can get into any more.
bool isAsFrozen(Shell *there, const QString &account, qint64 written);

// Undoes what freeze has done, where it did anything.
QString thaw(Shell *there, const QString &account);

// Takes it over. Returns why it stays there, empty when it is this server's: also because it was resumed meanwhile.
QString decide(Shell *there, const QString &account, const QString &word);

// Ends a switch that did not come to its end: takes the account back on-line there, unless it was suspended before, or
// is this server's already, which isOurs tells then. What another server has begun or taken stays as it is. Returns why
// that could not be done.
QString giveUp(Shell *there, const QString &account, const QString &word, bool wasOnline, bool *isOurs);

// The part of it, for tests: the count in the output of the script; nothing where there is none, or with isAlone where
// somebody is still listed.
std::optional<qint64> writtenIn(const QByteArray &output, bool isAlone);

} // namespace corv::ctl::moving
