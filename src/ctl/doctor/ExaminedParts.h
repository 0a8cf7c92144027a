#pragma once

#include "common/Account.h"
#include "ctl/doctor/Accounts.h"
#include "ctl/doctor/Database.h"
#include "ctl/doctor/Examination.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/https/View.h"
#include "ctl/offsite/Place.h"

#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

class QSettings;

// The parts of the examination, each of which reads what it is about and has it judged. What more than one of them
// needs is read before, so that all speak of the same moment.
namespace corv::ctl {

struct Accounts
{
    QList<hosting::User> all; // every user
    QList<hosting::User> accounts;
    QString atWork; // the account that the agent is working on, which is not among them
};

// The users and accounts as they are now.
Accounts readAccounts();

// The settings in the file of that path, as far as something else than what they are about tells that they are wrong.
Check examineSettings(const QSettings &settings, const QString &path);

// Apache's configuration, modules and log format.
Check examineApache();

// What is left over in files. It keeps services from starting, so that it is told of before them.
Check examineFiles(const Accounts &users, const NamedParts &parts);

// The services that are watched by the settings in the file of that path, and those that are needed. php is the version
// that new accounts get.
Check examineServices(const QSettings &settings, const QString &path, const QString &php);

// PHP of every version that has pools: a site may use another one than new accounts get, which inForce is.
Check examinePhp(const QString &inForce);

// PostgreSQL. problem is why it could not be asked, where there are no databases.
Check examinePostgres(const std::optional<Databases> &databases, const QString &problem);

// The accounts themselves. began is when the examination did, in milliseconds since 1970; what a deletion is working on
// meanwhile is none that was refused.
Check examineAccounts(const Accounts &users, const QList<AccountSite> &sites, const QString &php,
                      const std::optional<Databases> &databases, qint64 began);

// The sites as Apache has them.
Check examineSites(const Accounts &users, const QList<VirtualHost> &hosts, const QList<AccountSite> &sites);

// The firewall, where there is one: one check, or none.
QList<Check> examineFirewall();

// What visitors of the sites get to see.
Check examineVisitors(const QList<VirtualHost> &hosts, const QList<AccountSite> &sites, const QString &php);

// The SSH server, and whether its failures reach fail2ban.
Check examineSshd();

// The ids of deleted accounts.
Check examineFormer(const Accounts &users);

// Disk quotas on the homes' file system.
Check examineQuota();

// How many files still find room where accounts make any.
Check examineDisks();

// How long apt waits for its lock.
Check examineApt();

// Updates that come by themselves.
Check examineUpdates();

// The agent's own folders and its socket. destination is where backups go.
Check examineFolders(const QSettings &settings, const QString &destination);

// The backups, by what the agent would tell of them.
Check examineBackups(const QJsonObject &status);

// Who is told of failures, and of which nobody was.
Check examineNotify(const QSettings &settings, const QJsonObject &backups);

// What the web server reaches of the homes.
Check examineReach(const QList<hosting::User> &accounts);

// The homes: which are too large for a backup, by what is told of backups, and what the web server reaches of them.
Check examineHomes(const QList<hosting::User> &accounts, const QJsonObject &status);

// The copies of the backups at that place elsewhere.
Check examineOffsite(const OffsitePlace &place);

// The accounts' sites on HTTPS.
Check examineHttps(const https::State &state);

} // namespace corv::ctl
