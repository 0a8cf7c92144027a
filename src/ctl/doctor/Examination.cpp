#include "ctl/doctor/Examination.h"

#include "common/BackupConfig.h"
#include "common/Pool.h"
#include "ctl/doctor/AtWork.h"
#include "ctl/doctor/ExaminedParts.h"
#include "ctl/doctor/Facts.h"

#include <QDateTime>
#include <QSettings>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

QList<Check> examine(const QString &settingsPath, Homes homes)
{
    const qint64 began = QDateTime::currentMSecsSinceEpoch();
    const QSettings settings(settingsPath, QSettings::IniFormat);
    const QString php = hosting::phpVersion();
    QString atWork = accountAtWork();
    Accounts users = readAccounts();
    QString problem;
    std::optional<Databases> databases = readDatabases(&problem);
    NamedParts parts = readNamedParts(phpVersions());
    if (atWork.isEmpty())
        atWork = accountAtWork(); // a request that has begun meanwhile
    if (!atWork.isEmpty()) {
        leaveOut(atWork, &parts, &databases);
        users.accounts.removeIf([&](const hosting::User &user) { return user.name == atWork; });
        users.atWork = atWork;
    }
    const QJsonObject backups = readBackups(backup::load(settings));

    const QList<VirtualHost> hosts = readSites();
    const QList<AccountSite> sites = readAccountSites();

    // Causes before what they cause: what is mended from the top to the bottom is well in the end.
    QList<Check> checks = {examineSettings(settings, settingsPath),
                           examineApache(),
                           examineFiles(users, parts),
                           examineServices(settings, settingsPath, php),
                           examinePhp(php),
                           examinePostgres(databases, problem),
                           examineAccounts(users, sites, php, databases, began),
                           examineSites(users, hosts, sites)};
    checks += examineFirewall();
    checks +=
        QList<Check>{examineVisitors(hosts, sites, php),
                     examineSshd(),
                     examineFormer(users),
                     examineQuota(),
                     examineDisks(),
                     examineApt(),
                     examineUpdates(),
                     examineFolders(settings, backups.value("destination"_L1).toString()),
                     examineBackups(backups),
                     examineNotify(settings, backups),
                     homes == Homes::Measured ? examineHomes(users.accounts, backups) : examineReach(users.accounts)};
    // Who has no such place is not told of it at each look.
    if (const OffsitePlace place = placeIn(settings); !place.repository.isEmpty())
        checks.append(examineOffsite(place));
    // Likewise.
    if (const std::optional<https::State> https = readHttps())
        checks.append(examineHttps(*https));
    return checks;
}

} // namespace corv::ctl
