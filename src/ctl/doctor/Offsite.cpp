#include "ctl/doctor/Offsite.h"

#include "common/BackupFolders.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qint64 kHour = 3600;
constexpr qint64 kDay = 24 * kHour;
// As old as a backup may get, and some hours for its way over a slow line.
constexpr qint64 kOldCopy = 44 * kHour;
constexpr qint64 kOldCheck = 4 * kDay;

const auto kRun = u"corvctl offsite run"_s;
const auto kCheck = u"corvctl offsite check"_s;

} // namespace

QString lateCopy(const OffsiteState &state, qint64 now)
{
    if (state.copied.isEmpty())
        return state.ranAt > 0 ? u"no backup has been copied off-site whole"_s
                               : u"nothing has been copied off-site yet"_s;
    const qint64 age = now - backup::timeOf(state.copied);
    return age > kOldCopy
               ? u"the newest backup that is off-site, %1, is %2 hours old"_s.arg(state.copied).arg(age / kHour)
               : QString();
}

QList<Finding> checkOffsite(const OffsitePlace &place, const OffsiteState &state, bool hasRestic, bool isPlanned,
                            qint64 now)
{
    QList<Finding> findings;
    for (const QString &problem : place.problems)
        findings.append({Level::Fault, problem, u"editor /etc/corvane/corvane.ini; corvctl offsite run"_s});
    if (!hasRestic)
        findings.append({Level::Fault, u"restic is not installed, so nothing is copied off-site"_s,
                         u"apt-get install -y restic"_s});
    if (const QString late = lateCopy(state, now); !late.isEmpty())
        findings.append({Level::Fault, late, kRun});
    for (const QString &problem : state.problems)
        findings.append({Level::Fault, u"the last copy off-site: "_s + problem.simplified(), kRun});
    if (!isPlanned)
        findings.append({Level::Fault, u"what is off-site is not checked: its timer is off"_s,
                         u"systemctl enable --now corv-offsite-check.timer"_s});
    else if (!state.checkProblem.isEmpty())
        findings.append({Level::Fault, u"the last check of what is off-site: "_s + state.checkProblem.simplified(),
                         kCheck + u" --all"_s});
    else if (state.checkedAt > 0 && now - state.checkedAt > kOldCheck)
        findings.append({Level::Fault, u"what is off-site has not been checked for days"_s, kCheck});
    if (!state.drillProblem.isEmpty())
        findings.append({Level::Fault,
                         u"the last drill, with %1: %2"_s.arg(state.drilled, state.drillProblem.simplified()),
                         u"corvctl offsite drill "_s + shellWord(state.drilled)});
    return findings;
}

} // namespace corv::ctl
