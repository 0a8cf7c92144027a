#pragma once

#include "ctl/doctor/Finding.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>

namespace corv::ctl {

// What the FPM of one PHP version is set to.
struct PhpState
{
    QString version;
    QHash<QString, QString> settings; // for the whole server, by name; "no value" for an empty one
    bool readsOurs = false;           // whether there is something in the place of the package's own settings
};

// The settings in the output of "php-fpmVERSION -i".
QHash<QString, QString> parsePhpInfo(const QByteArray &output);

// Whether what all pools of one version share lets accounts at each other's scripts or values.
QList<Finding> checkPhp(const PhpState &state);

} // namespace corv::ctl
