#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/doctor/Sites.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// Apache looks for the virtual hosts of the address that a visitor has come to before it looks at any name: where there
// is one with that address, those with * are not asked at all.

// An IPv4 or IPv6 address in the one way that all are compared in, without brackets, and "*" for what stands for all of
// them; empty for what is none.
QString plainAddress(const QString &text);

// The addresses of this server's interfaces, each plain; without those that no visitor from elsewhere comes to.
QStringList outerAddresses();

// Where a virtual host is reached: its address, "*" for all, and its port.
struct Reached
{
    QString address; // plain; as it was written where it is a name
    int port = 0;
    bool isName = false;
};
Reached reachedAt(const QString &listen);

// Whether a visitor who comes to one of this server's own addresses comes to this place, and to no place with *.
bool takesVisitors(const Reached &place, const QStringList &own);

// The sites with an address where accounts' sites are reached by *, on port 443 too where HTTPS is on for accounts. own
// are the addresses that visitors come to.
QList<Finding> checkAddresses(const QList<VirtualHost> &hosts, const QStringList &own, bool isHttpsOn);

// The loopback addresses by which sites with * are reached, by port: where a site has 127.0.0.1 for itself, another
// one.
QHash<int, QString> freeLoopbacks(const QList<VirtualHost> &hosts);

} // namespace corv::ctl
