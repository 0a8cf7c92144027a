#pragma once

#include <QByteArray>

namespace corv {

// What waits for a disk or a share that does not answer cannot be ended: it goes when that answers or is taken away.

// Whether a process is one that was killed and cannot end, by what the kernel tells of it in /proc/PID/status.
bool isKilledButStuck(const QByteArray &status);

// Takes those of this process's own service out of it, so that its stop does not wait for them: they stay, among
// systemd's own. To be called after a kill that ended nothing. Does nothing where the service may not do that, or
// systemd does not run.
void leaveStuck();

} // namespace corv
