#include "common/BackupConfig.h"
#include "common/BackupManifest.h"
#include "ctl/doctor/Facts.h"
#include "ctl/metrics/Collectors.h"
#include "ctl/offsite/Place.h"
#include "ctl/offsite/State.h"
#include "ctl/verify/Verdict.h"

#include <QSettings>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

Sample plain(const char *metric, double value)
{
    return {QString::fromLatin1(metric), {}, value};
}

Sample plain(const char *metric, qint64 value)
{
    return plain(metric, static_cast<double>(value));
}

void addNewest(const QJsonObject &newest, QList<Sample> *samples)
{
    const QJsonArray errors = newest.value("errors"_L1).toArray();
    const auto problems = std::count_if(errors.cbegin(), errors.cend(),
                                        [](const QJsonValue &error) { return !backup::isHarmless(error.toString()); });
    samples->append({plain("corvane_backup_last_completion_timestamp_seconds", newest.value("created"_L1).toInteger()),
                     plain("corvane_backup_last_duration_seconds", newest.value("seconds"_L1).toInteger()),
                     plain("corvane_backup_last_size_bytes", newest.value("bytes"_L1).toInteger()),
                     plain("corvane_backup_last_problems", static_cast<qint64>(problems))});
}

// Of the backup that was verified last, whichever it is: the newest one is being verified for hours after it is made.
void addVerdicts(const QString &destination, const QJsonArray &backups, QList<Sample> *samples)
{
    std::optional<Verdict> last;
    qint64 proved = 0;
    for (const auto &value : backups) {
        const QString name = value.toObject().value("name"_L1).toString();
        const std::optional<Verdict> verdict = readVerdict(destination, name);
        if (!verdict)
            continue;
        for (const FileVerdict &file : verdict->files)
            proved = std::max(proved, file.proved);
        if (!last || verdict->checked > last->checked)
            last = verdict;
    }
    samples->append(plain("corvane_backup_last_verification_timestamp_seconds", last ? last->checked : 0));
    if (last)
        samples->append(plain("corvane_backup_last_verification_faults", static_cast<qint64>(faultsIn(*last).size())));
    samples->append(plain("corvane_backup_last_proof_timestamp_seconds", proved));
}

} // namespace

Collected collectBackups(const Circumstances &here)
{
    const backup::Config config = backup::load(QSettings(here.settings, QSettings::IniFormat));
    Collected all;
    const QJsonObject status = readBackups(config);
    const QJsonArray backups = status.value("backups"_L1).toArray();
    qint64 bytes = 0;
    for (const auto &value : backups)
        bytes += value.toObject().value("bytes"_L1).toInteger();
    // Newest first. One whose manifest cannot be read does not tell when it was finished.
    const auto newest = std::find_if(backups.cbegin(), backups.cend(),
                                     [](const QJsonValue &value) { return value.toObject().contains("created"_L1); });

    all.samples = {plain("corvane_backups", static_cast<qint64>(backups.size())),
                   plain("corvane_backups_size_bytes", bytes),
                   plain("corvane_backup_running", status.value("running"_L1).toBool() ? 1.0 : 0.0)};
    if (const qint64 free = status.value("freeBytes"_L1).toInteger(-1); free >= 0)
        all.samples.append(plain("corvane_backup_destination_free_bytes", free));
    if (newest == backups.cend())
        all.samples.append(plain("corvane_backup_last_completion_timestamp_seconds", 0.0));
    else
        addNewest(newest->toObject(), &all.samples);
    addVerdicts(config.destination, backups, &all.samples);
    return all;
}

Collected collectOffsite(const Circumstances &here)
{
    const OffsitePlace place = placeIn(QSettings(here.settings, QSettings::IniFormat));
    if (place.repository.isEmpty())
        return {{plain("corvane_offsite_configured", 0.0)}, {}, {}};
    const OffsiteState state = readOffsite();
    return {{plain("corvane_offsite_configured", 1.0),
             plain("corvane_offsite_last_copy_timestamp_seconds", state.copiedAt),
             plain("corvane_offsite_last_run_timestamp_seconds", state.ranAt),
             plain("corvane_offsite_last_run_duration_seconds", state.seconds),
             plain("corvane_offsite_last_run_problems", static_cast<qint64>(state.problems.size())),
             plain("corvane_offsite_last_check_timestamp_seconds", state.checkedAt),
             plain("corvane_offsite_last_check_failed", state.checkProblem.isEmpty() ? 0.0 : 1.0),
             plain("corvane_offsite_last_drill_timestamp_seconds", state.drilledAt),
             plain("corvane_offsite_last_drill_failed", state.drillProblem.isEmpty() ? 0.0 : 1.0)},
            {},
            {}};
}

} // namespace corv::ctl
