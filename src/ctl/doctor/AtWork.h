#pragma once

#include "ctl/doctor/Accounts.h"

#include <QString>

#include <optional>

namespace corv::ctl {

// What the agent is changing while the doctor looks is half there by nature. It must not be taken for what was cut off:
// the command against that would destroy it.

// The account that the agent is working on; empty where it works on none.
QString accountAtWork();

// Takes what carries the account's name out of what was found of leftovers.
void leaveOut(const QString &account, NamedParts *parts, std::optional<Databases> *databases);

} // namespace corv::ctl
