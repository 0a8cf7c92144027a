#pragma once

#include <QString>

// What a tenant's own sessions can hold up by a transaction that they leave open: every change of the account's role
// and of its database waits for it. All take the name of an account, which must be a valid one, and wait some seconds
// at most. What they could not do shows in the change that comes next; where no server has its socket on this host,
// they do nothing. Sessions of superusers stay.
namespace corv::postgres {

// Ends the sessions whose transaction may hold the account's role or database; all others stay.
void endHolders(const QString &account);

// The same, and the role may not log in from then on: whoever comes back as fast as he is ended would hold it again.
void lockRole(const QString &account);

// Locks the role and ends all of its sessions, and all in its database.
void shutOut(const QString &account);

} // namespace corv::postgres
