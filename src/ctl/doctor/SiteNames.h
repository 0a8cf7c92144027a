#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/doctor/Sites.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// Two sites that answer to the same names: the one that Apache serves, and the one that it hides.
struct DoubleName
{
    QString first;
    QString second;
    QStringList names;
};

// What sites hide of each other, in Apache's order. own are the addresses that visitors come to: at those, a virtual
// host with the address goes before all with *.
QList<DoubleName> doubleNames(const QList<VirtualHost> &hosts, const QStringList &own);

// A fault for each.
QList<Finding> checkDoubleNames(const QList<DoubleName> &doubles);

// Whether two sites are among them.
bool areDoubles(const QList<DoubleName> &doubles, const QString &one, const QString &other);

// Names for a sentence, the first of many.
QString listedNames(const QStringList &names);

} // namespace corv::ctl
