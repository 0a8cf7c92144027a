#pragma once

#include "agent/Reply.h"

#include <QStringList>

namespace corv {

// services.restart: restarts the unit that the argument name names, if it is one of services. Apache is restarted only
// with a valid configuration. Apache and the panel's own units are restarted one second later (queued true), so that
// the reply gets through to a panel that they serve; for all others the restart is waited for.
Reply restartService(const QStringList &services, const QJsonObject &args);

} // namespace corv
