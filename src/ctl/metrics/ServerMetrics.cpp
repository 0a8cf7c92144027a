#include "common/Account.h"
#include "common/BackupConfig.h"
#include "common/BackupFolders.h"
#include "common/BackupManifest.h"
#include "common/Pool.h"
#include "common/System.h"
#include "ctl/doctor/AccountFacts.h"
#include "ctl/doctor/Disks.h"
#include "ctl/doctor/Examination.h"
#include "ctl/doctor/Services.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/metrics/Collectors.h"
#include "ctl/notify/Failures.h"

#include <QSet>
#include <QSettings>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qint64 kLargestManifest = 16'777'216;

// The names of those that there are: of one that is gone nothing is told any more, though a backup may hold it.
QSet<QString> accountNames()
{
    QSet<QString> names;
    for (const AccountSite &account : readAccountSites()) {
        if (hosting::validUsername(account.name))
            names.insert(account.name);
    }
    return names;
}

QStringList sorted(const QSet<QString> &names)
{
    QStringList list(names.cbegin(), names.cend());
    list.sort();
    return list;
}

void addBackupSizes(const backup::Config &config, const QSet<QString> &accounts, QList<Sample> *samples)
{
    const QString newest = backup::newestIn(config.destination);
    qint64 budget = kLargestManifest;
    const QJsonObject manifest =
        newest.isEmpty() ? QJsonObject() : backup::readManifest(config.destination + u'/' + newest, &budget);
    for (const auto &value : manifest.value("accounts"_L1).toArray()) {
        const QJsonObject account = value.toObject();
        const QString name = account.value("username"_L1).toString();
        if (!accounts.contains(name))
            continue;
        const auto add = [&](const QString &part, QLatin1StringView member) {
            samples->append({u"corvane_account_backup_bytes"_s, {name, part}, account.value(member).toDouble()});
        };
        add(u"home"_s, "homeBytes"_L1);
        add(u"database"_s, "dbBytes"_L1);
    }
}

} // namespace

Collected collectAccounts(const Circumstances & /*here*/)
{
    const QList<AccountSite> accounts = readAccountSites();
    const auto suspended =
        std::count_if(accounts.cbegin(), accounts.cend(), [](const AccountSite &account) { return account.suspended; });
    return {{{u"corvane_accounts"_s, {u"active"_s}, static_cast<double>(accounts.size() - suspended)},
             {u"corvane_accounts"_s, {u"suspended"_s}, static_cast<double>(suspended)}},
            {},
            {}};
}

// Of what is counted anyhow: homes are never measured for this.
Collected collectUse(const Circumstances &here)
{
    const backup::Config config = backup::load(QSettings(here.settings, QSettings::IniFormat));
    const QSet<QString> accounts = accountNames();
    Collected all;
    if (const Used used = readUsed(config); used.source == "quotas"_L1) {
        for (const QString &name : sorted(accounts)) {
            if (used.bytes.contains(name))
                all.samples.append(
                    {u"corvane_account_used_bytes"_s, {name}, static_cast<double>(used.bytes.value(name))});
            if (used.limits.contains(name))
                all.samples.append(
                    {u"corvane_account_limit_bytes"_s, {name}, static_cast<double>(used.limits.value(name))});
        }
    }
    addBackupSizes(config, accounts, &all.samples);
    return all;
}

Collected collectDisks(const Circumstances & /*here*/)
{
    Collected all;
    for (const Disk &disk : readDisks()) {
        all.samples.append({u"corvane_disk_files"_s, {disk.mount}, static_cast<double>(disk.files)});
        all.samples.append({u"corvane_disk_free_files"_s, {disk.mount}, static_cast<double>(disk.free)});
    }
    return all;
}

Collected collectServices(const Circumstances &here)
{
    QStringList names = system::monitoredServices(QSettings(here.settings, QSettings::IniFormat));
    for (const QString &needed : neededServices(hosting::phpVersion())) {
        if (!names.contains(needed))
            names.append(needed);
    }
    const QList<Service> services = readServices(names);
    Collected all;
    for (const auto &[name, unit] : services) {
        const QString state = unit.value(u"ActiveState"_s);
        const bool isUp = state == "active"_L1 || state == "reloading"_L1;
        all.samples.append({u"corvane_service_active"_s, {name}, isUp ? 1.0 : 0.0});
    }
    for (const Failed &failed : failures())
        all.samples.append(
            {u"corvane_unit_failure_timestamp_seconds"_s, {failed.unit}, static_cast<double>(failed.time)});
    if (services.size() < names.size())
        all.problem = u"systemctl tells nothing of %1"_s.arg(names.mid(services.size()).join(", "_L1));
    return all;
}

Collected collectDoctor(const Circumstances &here)
{
    Collected all;
    for (const Check &check : examine(here.settings, Homes::NotMeasured)) {
        const auto add = [&](Level level, const QString &word) {
            const auto found = std::count_if(check.findings.cbegin(), check.findings.cend(),
                                             [level](const Finding &finding) { return finding.level == level; });
            all.samples.append({u"corvane_doctor_findings"_s, {check.name, word}, static_cast<double>(found)});
        };
        add(Level::Fault, u"fault"_s);
        add(Level::Note, u"note"_s);
    }
    return all;
}

} // namespace corv::ctl
