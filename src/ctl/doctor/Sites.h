#pragma once

#include "ctl/doctor/Finding.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

// One <VirtualHost> of Apache's enabled sites.
struct VirtualHost
{
    QString site;             // the name of its site, as a2dissite takes it
    QStringList listens;      // where it is reached: "*:80", "192.0.2.1:443"
    QStringList names;        // what it answers to, its ServerName first, in lower case; aliases may hold * and ?
    QStringList accounts;     // those whose home or PHP it serves, by its text
    bool isEncrypted = false; // HTTPS
    QString certificate;      // the path of its certificate; empty for none
};

// An account as far as sites go.
struct AccountSite
{
    QString name;
    QString domain;
    bool suspended = false;
};

// The virtual hosts in the text of a site file, at most a thousand of them. Whatever the file includes is not followed.
QList<VirtualHost> parseSite(const QString &site, const QByteArray &text);

// The account whose own site this is; empty for a site beside.
QString accountOfSite(const QString &site);

// Whether a name fits a pattern with * and ?, as Apache matches them.
bool fitsName(QStringView name, QStringView pattern);

// Whether a virtual host answers to a host name, by one of its names or patterns.
bool answersTo(const VirtualHost &host, const QString &name);

// The first of the virtual hosts that answers to the domain or its www. form; those that serve the account of that name
// are not asked. Empty for none.
std::optional<VirtualHost> holderOf(const QList<VirtualHost> &hosts, const QString &domain, const QString &account);

// The names of the sites beside the account's own that serve its home, its PHP or its domain, each once: neither a
// suspension nor a deletion reaches them.
QStringList sitesBeside(const QList<VirtualHost> &hosts, const QString &account, const QString &domain);

// The command that takes sites off-line.
QString disableSites(const QStringList &sites);

// What is wrong with the sites together, which are in Apache's order: names that two of them answer to, of which Apache
// serves the first; and sites that go on serving accounts that are suspended or gone. users holds all users' names, own
// the addresses of this server that visitors come to.
QList<Finding> checkSites(const QList<VirtualHost> &hosts, const QList<AccountSite> &accounts, const QStringList &users,
                          const QStringList &own = {});

} // namespace corv::ctl
