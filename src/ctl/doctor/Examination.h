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

// Whether the sizes of homes are added up, for which every file in them is looked at.
enum class Homes { Measured, NotMeasured };

// Examines this server as root and changes nothing; the agent itself is not asked. settings is the path of the agent's
// settings file.
QList<Check> examine(const QString &settings, Homes homes = Homes::Measured);

} // namespace corv::ctl
