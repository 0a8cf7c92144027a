#pragma once

#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

struct Session;

// Refuses a domain, as it is asked for, that something else on the server already answers to, and says what; forced it
// only says so. The account is the one that is to have it; isForced is nothing for a command that cannot be forced.
// otherwise is what such a command has to say of a way out. Gives the status to end with where it is refused.
std::optional<int> refuseTaken(const Session &session, const QString &domain, const QString &account,
                               std::optional<bool> isForced, const QString &otherwise = {});

// Refuses a domain, as it is asked for, that the names of the site's logs have no room for. Gives the status to end
// with where it is refused.
std::optional<int> refuseLong(const Session &session, const QString &domain);

// The names of the sites that serve an account beside its own, which neither a suspension nor a deletion reaches.
QStringList findSitesBeside(const Session &session, const QString &account);

// Says that these sites stay on line when the account is gone or off-line, and how they are taken there.
void warnOfSites(const QStringList &sites, const QString &account);

// Says which of these sites are still enabled, after that.
void tellOfSitesLeft(const Session &session, const QStringList &sites);

} // namespace corv::ctl
