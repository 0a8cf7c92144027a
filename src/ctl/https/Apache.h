#pragma once

#include <QByteArray>
#include <QString>

namespace corv::ctl {

// Switching HTTPS for accounts on and off in Apache. All for root; each gives why it failed, empty where it did not.

// Enables the modules, the site and the units, and reloads Apache; what was enabled by it is disabled again where
// Apache does not take it, and what was before stays. What was refused before is tried again.
QString switchHttpsOn();

// Disables the site and the units and reloads Apache. Modules and certificates stay.
QString switchHttpsOff();

// Has Apache reloaded, and the sites on port 443 made anew before.
QString reloadApache();

// Whether a text of Apache's configuration manages certificates itself, which would come to share a store with ours.
bool managesCertificates(const QByteArray &configuration);

} // namespace corv::ctl
