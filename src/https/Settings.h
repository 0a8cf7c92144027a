#pragma once

#include "https/Twin.h"

#include <QByteArray>
#include <QString>

class QSettings;

namespace corv::https {

// What the administrator has settled for all sites.
struct Settings
{
    Authority authority;
    bool probes = true; // false: each name is taken to lead here
    int orders = 0;     // so many first certificates are asked for in three hours at most
    QString problem;    // the first setting that is none and was passed over, as a sentence; empty where all are
};

// The settings of the file, keys https/contact, https/authority, https/authority_ca, https/binding, https/retry,
// https/renew_window, https/check, https/probe and https/orders.
Settings readSettings(const QSettings &file);

// The directives in the text of the file with the protocol's settings, as they stand in each site.
QByteArray tlsDirectives(const QByteArray &text);

} // namespace corv::https
