#pragma once

#include "ctl/doctor/Sites.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

namespace corv::ctl {

// Reads of this server's sites what the examination, the status and the commands for accounts judge. Anybody may.

// What a file holds, at most so many bytes; nothing for what is no regular file, is larger, or cannot be read. Links
// are followed. Never waits.
std::optional<QByteArray> readUpTo(const QString &path, qint64 most);

// The virtual hosts of all enabled sites, in the order in which Apache reads them.
QList<VirtualHost> readSites();

// What other than the account of that name answers to a domain, or its www. form, on this server, such as "the site
// shop" or "the account shop", which may be suspended or have no site; empty for nothing.
QString holderHere(const QString &domain, const QString &account);

// The accounts of the user database, by name. Suspended is one whose site file is that of a suspension.
QList<AccountSite> readAccountSites();

} // namespace corv::ctl
