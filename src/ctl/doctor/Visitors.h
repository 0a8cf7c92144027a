#pragma once

#include "ctl/doctor/Finding.h"
#include "ctl/doctor/Sites.h"
#include "ctl/doctor/Visits.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <functional>

namespace corv::ctl {

// What a site's visitors see.
enum class Sight {
    Well,      // a page, a redirect, or a refusal of the site's own making
    Suspended, // the word that it is off-line, as it should be
    OwnError,  // an error that the site's own programs make
    Broken,    // an error that Apache makes because what should serve the site does not, or no answer at all
    Open,      // pages, although its account is suspended
    Stale,     // the word that it is off-line, although its account is not suspended
    NotAsked,
};

struct SiteSight
{
    QString site;
    QString host; // the name that it was asked for
    int port = 80;
    bool isAccounts = false; // whether it is that of an account, served by its PHP
    int status = 0;          // of HTTP; 0: no answer
    Sight sight = Sight::NotAsked;
    bool isLate = false;
    QString problem; // why there was no answer
};

// The visits to make: one for each of the virtual hosts that can be asked without encryption, at most a thousand. Those
// behind another of the same name cannot be reached, and are not asked. all are those of the server, where hosts are
// only some: what has an address of its own answers there for what has none.
QList<Visit> visitsTo(const QList<VirtualHost> &hosts);
QList<Visit> visitsTo(const QList<VirtualHost> &hosts, const QList<VirtualHost> &all);

// What came of them. accounts tells which sites are suspended.
QList<SiteSight> sightsOf(const QList<VirtualHost> &hosts, const QList<AccountSite> &accounts,
                          const QList<Visited> &visited);

// Makes these visits, and tells what came of them; each answer is waited for so many milliseconds. Apache reads its
// sites a moment after a reload was asked for: while one is still as it was, all are asked again, for three seconds.
QList<SiteSight> lookAt(const QList<VirtualHost> &hosts, const QList<VirtualHost> &all,
                        const QList<AccountSite> &accounts, int milliseconds);

// Looks at all sites of this server, or at those for which wanted is true of the site's name; each answer is waited for
// so many milliseconds.
QList<SiteSight> lookAtSites(int milliseconds);
QList<SiteSight> lookAtSites(int milliseconds, const std::function<bool(const QString &)> &wanted);

// What a status means, such as "503 Service Unavailable"; what kept from an answer where there is none.
QString seenText(const SiteSight &sight);

// A few of the names, and how many more there are.
QString someOf(const QStringList &names);

// What is wrong with what visitors see. php is the PHP version in force, empty for none.
QList<Finding> checkSights(const QList<SiteSight> &sights, const QString &php);

} // namespace corv::ctl
