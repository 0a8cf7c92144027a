#include "ctl/doctor/Notify.h"

#include <QJsonArray>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Between the end of a run, which its backup is marked with, and what is kept of its failure lies the start of a unit.
constexpr qint64 kSameRun = 600;

bool leftBackup(const Failed &failed, const QJsonObject &backups)
{
    const QJsonObject last = backups.value("backups"_L1).toArray().first().toObject();
    return failed.unit == kBackupUnit && last.contains("errors"_L1) &&
           last.value("created"_L1).toInteger() > failed.time - kSameRun;
}

} // namespace

QList<Finding> checkNotify(const Ways &ways, const QList<Missing> &missing, const QList<Failed> &failed,
                           const QJsonObject &backups, qint64 now)
{
    QList<Finding> findings;
    for (const QString &problem : ways.problems)
        findings.append({Level::Fault, u"nobody can be told of a failed backup so: "_s + problem,
                         u"editor /etc/corvane/corvane.ini; corvctl notify test"_s});
    for (const Missing &one : missing)
        findings.append({Level::Fault, one.problem, one.mend});

    const QString untold = ways.areNone() ? u"; nobody was told, since the settings have no [notify]"_s : QString();
    for (const Failed &one : failed) {
        if (leftBackup(one, backups))
            continue;
        findings.append(
            {Level::Fault, failureSentence(one, now) + untold,
             one.unit == kBackupUnit ? u"corvctl backup start --wait"_s : u"systemctl start "_s + shellWord(one.unit)});
    }
    return findings;
}

} // namespace corv::ctl
