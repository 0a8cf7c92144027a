#pragma once

#include "common/HttpsState.h"

#include <QStringList>

namespace corv::https {

// Deletes what there is of certificates, keys and choices of sites and accounts that have been gone for a week; until
// then an account that is brought back finds them. domains are those of all sites and accounts, accounts all users of
// the system. The state remembers since when each is missed, and forgets what is known of the orders for it. now is in
// seconds since 1970.
void prune(const QStringList &domains, const QStringList &accounts, State *state, qint64 now);

} // namespace corv::https
