#pragma once

#include "ctl/doctor/Finding.h"

#include <QList>
#include <QString>

namespace corv::ctl {

// One part of the examination: what it looked at, what it saw in a few words, and what is wrong with it.
struct Check
{
    QString name;
    QString seen;
    QList<Finding> findings;
};

// Examines this server as root and changes nothing; the agent itself is not asked. settings is the path of the agent's
// settings file.
QList<Check> examine(const QString &settings);

} // namespace corv::ctl
