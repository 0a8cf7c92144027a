#include "ctl/doctor/Backup.h"

#include "common/BackupFolders.h"
#include "common/BackupManifest.h"

#include <QDateTime>
#include <QJsonArray>
#include <QStringList>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qint64 kHour = 3600;
// A run starts within the same hour each night, so that a backup of this age means that a night was missed.
constexpr qint64 kOldSeconds = 36 * kHour;
// A name is the local time, which is set back by an hour once a year.
constexpr qint64 kAheadSeconds = 2 * kHour;
constexpr qint64 kToolSeconds = 600; // after which a home's archive is cut off
// From which part of what fits on a home comes near it.
constexpr double kNear = 0.7;
// No verification takes longer to begin and to end than this.
constexpr qint64 kVerifiedSeconds = 14 * kHour;
constexpr qsizetype kMostFaults = 5;
constexpr qint64 kGibibyte = 1'073'741'824;
// Where no backup tells how large the next one gets.
constexpr qint64 kLeastFree = kGibibyte;

constexpr auto kStartBackup = "corvctl backup start --wait"_L1;
// What tar says of a file that was being written to while it was saved. It is saved all the same.
constexpr auto kCutOff = "took too long"_L1;

QStringList errorsOf(const QJsonObject &backup)
{
    QStringList errors;
    for (const auto &error : backup.value("errors"_L1).toArray())
        errors.append(error.toString());
    return errors;
}

QString gibibytes(qint64 bytes)
{
    return u"%1 GiB"_s.arg(QString::number(static_cast<double>(bytes) / static_cast<double>(kGibibyte), 'f', 1));
}

QList<Finding> checkSpace(const QJsonObject &status, const QJsonArray &backups)
{
    const qint64 free = status.value("freeBytes"_L1).toInteger();
    const qint64 needed = std::max(backups.first().toObject().value("bytes"_L1).toInteger(), kLeastFree);
    const QString destination = status.value("destination"_L1).toString();
    if (free < 0 || free >= needed)
        return {};
    // Which backup may go, if any, is for nobody else to say.
    const QString mend = u"df -h "_s + shellWord(destination);
    return {
        {Level::Fault,
         u"only %1 are free at %2, and the next backup needs %3"_s.arg(gibibytes(free), destination, gibibytes(needed)),
         mend}};
}

QList<Finding> checkLast(const QJsonObject &backup, qint64 now)
{
    QList<Finding> findings;
    const QString name = backup.value("name"_L1).toString();
    const qint64 age = now - std::max(backup::timeOf(name), backup.value("created"_L1).toInteger());
    if (age > kOldSeconds) {
        findings.append({Level::Fault, u"the last backup, %1, is %2 hours old"_s.arg(name).arg(age / kHour),
                         QString(kStartBackup)});
    }
    if (!backup.contains("errors"_L1)) {
        findings.append({Level::Fault, u"the last backup, %1, has no manifest that could be read"_s.arg(name),
                         QString(kStartBackup)});
    }
    for (const QString &error : errorsOf(backup)) {
        const bool harmless = backup::isHarmless(error);
        findings.append({harmless ? Level::Note : Level::Fault,
                         u"the last backup, %1: %2"_s.arg(name, error.simplified()), QString(kStartBackup)});
    }
    return findings;
}

// Of a time that has not come: until then it is the newest by its name, and would be looked at in the place of each
// that follows.
bool isAhead(const QJsonValue &backup, qint64 now)
{
    return backup::timeOf(backup.toObject().value("name"_L1).toString()) > now + kAheadSeconds;
}

QList<Finding> checkAhead(const QJsonObject &status, const QJsonArray &backups, qint64 now)
{
    const QString destination = status.value("destination"_L1).toString();
    QList<Finding> findings;
    for (const auto &backup : backups) {
        if (!isAhead(backup, now))
            continue;
        const QString name = backup.toObject().value("name"_L1).toString();
        findings.append(
            {Level::Fault,
             u"the backup %1 is of a time that has not come: the clock was ahead; it hides those that follow"_s.arg(
                 name),
             u"mv -T %1/%2 %1/ahead-%2"_s.arg(shellWord(destination), shellWord(name))});
    }
    return findings;
}

// Whether a run that ended within the limit saved the account's home.
bool wasSaved(const QString &account, const QJsonObject &backup)
{
    if (!backup.contains("seconds"_L1) || backup.value("seconds"_L1).toInteger() >= kToolSeconds)
        return false;
    const QStringList errors = errorsOf(backup);
    if (std::any_of(errors.cbegin(), errors.cend(),
                    [&account](const QString &error) { return error.startsWith(account + u" files:"_s); }))
        return false;
    const QJsonArray accounts = backup.value("accounts"_L1).toArray();
    return std::any_of(accounts.cbegin(), accounts.cend(), [&account](const QJsonValue &saved) {
        return saved.toObject().value("username"_L1).toString() == account;
    });
}

bool wasCutOff(const QString &account, const QJsonObject &backup)
{
    const QStringList errors = errorsOf(backup);
    return std::any_of(errors.cbegin(), errors.cend(), [&account](const QString &error) {
        return error.startsWith(account + u" files:"_s) && error.endsWith(kCutOff);
    });
}

} // namespace

QList<Finding> checkBackups(const QJsonObject &status, qint64 now, bool timerActive)
{
    QList<Finding> findings;
    if (!timerActive) {
        findings.append({Level::Fault, u"no nightly backup is planned: its timer is off"_s,
                         u"systemctl enable --now corv-backup.timer"_s});
    }

    const QJsonArray backups = status.value("backups"_L1).toArray();
    findings += checkSpace(status, backups);
    findings += checkAhead(status, backups, now);
    const auto last = std::find_if(backups.cbegin(), backups.cend(),
                                   [now](const QJsonValue &backup) { return !isAhead(backup, now); });
    if (last != backups.cend())
        return findings + checkLast(last->toObject(), now);
    if (!status.value("running"_L1).toBool())
        findings.append({Level::Fault, u"there is no backup yet"_s, QString(kStartBackup)});
    return findings;
}

QList<Finding> checkVerdict(const QJsonObject &status, const std::optional<Verdict> &verdict, qint64 now)
{
    const QJsonObject last = status.value("backups"_L1).toArray().first().toObject();
    const QString name = last.value("name"_L1).toString();
    const qint64 made = std::max(backup::timeOf(name), last.value("created"_L1).toInteger());
    if (name.isEmpty())
        return {};
    if (!verdict || verdict->checked == 0) {
        if (now - made < kVerifiedSeconds)
            return {};
        return {{Level::Note, u"whether the last backup can be restored was not looked at"_s,
                 u"systemctl start corv-verify.service"_s}};
    }
    const QStringList faults = faultsIn(*verdict);
    if (faults.isEmpty())
        return {};
    const qsizetype more = faults.size() - kMostFaults;
    return {{Level::Fault,
             u"the last backup is not whole: %1%2"_s.arg(faults.mid(0, kMostFaults).join("; "_L1),
                                                         more > 0 ? u"; and %1 more"_s.arg(more) : QString()),
             QString(kStartBackup)}};
}

QList<Finding> checkBesideBackups(bool proofPlanned, bool deletionsWatched)
{
    QList<Finding> findings;
    if (!proofPlanned)
        findings.append({Level::Fault, u"no dump is restored for a proof each week: its timer is off"_s,
                         u"systemctl enable --now corv-prove.timer"_s});
    if (!deletionsWatched)
        findings.append({Level::Fault,
                         u"what the archives of deletions do not hold is not written down: its watcher is off"_s,
                         u"systemctl enable --now corv-state.path"_s});
    return findings;
}

QString largestHome(qint64 bytesPerSecond)
{
    return gibibytes(kToolSeconds * bytesPerSecond);
}

bool isNearLimit(const QHash<QString, qint64> &sizes)
{
    return std::any_of(sizes.cbegin(), sizes.cend(), [](qint64 size) {
        return static_cast<double>(size) > kNear * static_cast<double>(kToolSeconds * kCautiousBytesPerSecond);
    });
}

QList<Finding> checkHomes(const QHash<QString, qint64> &sizes, const QJsonObject &status, qint64 bytesPerSecond)
{
    const QJsonObject last = status.value("backups"_L1).toArray().first().toObject();
    QStringList names = sizes.keys();
    names.sort();

    QList<Finding> findings;
    for (const QString &name : names) {
        const bool cutOff = wasCutOff(name, last);
        const qint64 most = kToolSeconds * bytesPerSecond;
        const bool tooLarge = sizes.value(name) > most;
        if (!cutOff && (!tooLarge || wasSaved(name, last))) {
            if (!wasSaved(name, last) && static_cast<double>(sizes.value(name)) > kNear * static_cast<double>(most))
                findings.append(
                    {Level::Note,
                     u"the home of the account %1 has %2; about %3 can be archived within ten minutes"_s.arg(
                         name, gibibytes(sizes.value(name)), largestHome(bytesPerSecond)),
                     u"du -xh --apparent-size --max-depth=2 /home/%1 | sort -h | tail | cat -v"_s.arg(name)});
            continue;
        }
        findings.append(
            {Level::Fault,
             u"the home of the account %1, %2, is too large to be archived within ten minutes%3"_s.arg(
                 name, gibibytes(sizes.value(name)), cutOff ? u"; the last backup cut it off"_s : QString()),
             u"du -xh --apparent-size --max-depth=2 /home/%1 | sort -h | tail | cat -v"_s.arg(name)});
    }
    return findings;
}

} // namespace corv::ctl
