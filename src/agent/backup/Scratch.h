#pragma once

#include <QByteArray>
#include <QString>

// The database that a dump is loaded into before it takes the live one's place. All take the account's name, which must
// be a valid one, and return why they failed, empty when they did not.
//
// The checks ask the server themselves. Where no server has its socket on this host they have nobody to ask, and pass.
namespace corv::backup {

// Makes an empty one, in place of one that a restore left.
QString prepareScratch(const QString &user);

QString dropScratch(const QString &user);

// Puts it in the live one's place. The script ends at its first failure: up to the first rename that leaves the live
// database as it was, after it under the name with __old.
QString swapScratchIn(const QString &user);

// Whether a restore may begin: the live data is not what the swap would drop, and the account may log in.
QString checkBefore(const QString &user);

// Whether it is as empty as it was made. Everybody may connect to a new database for a moment, and could leave in it
// what the account would then run.
QString checkFresh(const QString &user);

// Ends all sessions in it, and checks that none is left: a single one makes the swap stop half-way.
QString clearScratch(const QString &user);

// Takes the new database and the live one from the account's role until the swap is over: an owner can be kept out of a
// database by no right, and a single session of his between the two renames would leave him without any. taken gets
// what letOwnerIn is to be given, also where a part of it failed.
QString shutOwnerOut(const QString &user, QByteArray *taken);

// Gives back what was taken, under whichever name it has by now.
QString letOwnerIn(const QString &user, const QByteArray &taken);

// Makes the account a member of the role that pg_hba.conf lets into any database, where "corvctl database harden" has
// made one, or takes that back. Other roles then reach none but their own, not even a new one.
void letIntoScratch(const QString &user, bool allowed);

} // namespace corv::backup
