#pragma once

#include "agent/Reply.h"

namespace corv::hosting {

// hosting.create: makes an account (user, home, key, database, pool, site), or undoes what it had done and says why.
Reply create(const QJsonObject &args);

// hosting.suspend and hosting.resume: take an account's site, pool, logins and database role off-line, and back. Every
// step of the last stage is tried; its failures are reported together.
Reply suspend(const QJsonObject &args);
Reply resume(const QJsonObject &args);

// hosting.delete: copies an account's home and database to /var/backups/corvane, then removes the account. Nothing is
// removed without both copies; after them nothing stops the removal, and its failures are reported together.
Reply remove(const QJsonObject &args);

// hosting.usage: the bytes that each account uses, from the disk quotas where they are on, else measured by du.
Reply usage(const QJsonObject &args);

// hosting.getKeys and hosting.setKeys: the SSH public keys that let an account's user in, read and replaced with that
// user's own rights.
Reply getKeys(const QJsonObject &args);
Reply setKeys(const QJsonObject &args);

// hosting.resetDbPassword: gives an account's database role a new password, the only place where it is told.
Reply resetDbPassword(const QJsonObject &args);

// hosting.dbReadOnly: makes an account's database read-only, or writable again, and ends its connections so that it
// holds at once.
Reply dbReadOnly(const QJsonObject &args);

} // namespace corv::hosting
