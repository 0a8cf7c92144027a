#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/doctor/System.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

#include <utility>

namespace corv::ctl {

// A service and the properties that systemctl shows of it.
using Service = std::pair<QString, UnitProperties>;

// The services that accounts need beside those that the settings name: PHP-FPM in the version in force and in each that
// comes up with the server, and the clusters of PostgreSQL that do. The unit postgresql alone tells nothing of them.
QStringList neededServices(const QString &php);

// The state of these services; empty where systemctl tells nothing.
QList<Service> readServices(const QStringList &names);

// The names of all services for which there is a unit file.
QStringList knownServices();

// The settings file that names services, and those that it names.
struct Watched
{
    QString path;
    QStringList services;
};

// The sockets that an FPM has left, as words for the shell, by the name of its service.
using LeftSockets = QHash<QString, QStringList>;

// What is wrong with services, php being the PHP version in force, and known what knownServices gives. left holds the
// sockets that keep a service from starting as long as anybody has them open, poolless the FPMs that cannot start for
// want of a pool.
QList<Finding> checkServices(const QList<Service> &services, const QString &php, const QStringList &known,
                             const Watched &watched, const LeftSockets &left, const QStringList &poolless);

} // namespace corv::ctl
