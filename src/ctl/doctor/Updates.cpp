#include "ctl/doctor/Updates.h"

#include "common/Packages.h"
#include "common/TimedRun.h"
#include "ctl/doctor/Facts.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;
const auto kPackage = u"unattended-upgrades"_s;
const auto kTimer = u"apt-daily-upgrade.timer"_s;

} // namespace

AutomaticState readAutomatic()
{
    return {installed(kPackage), unitProperties(kTimer)};
}

bool isAutomatic()
{
    // The value is a number of days, and nothing where it was never set.
    const QByteArray value =
        runWithin(kToolMs, u"apt-config"_s, {u"dump"_s, u"--format"_s, u"%v"_s, u"APT::Periodic::Unattended-Upgrade"_s})
            .output.trimmed();
    return !value.isEmpty() && value != "0";
}

QList<Finding> checkAutomatic(const AutomaticState &state)
{
    if (!state.hasPackage) {
        return {{Level::Fault,
                 u"automatic security updates are on, but nothing installs them: there is no package "_s + kPackage,
                 u"apt-get install -y "_s + kPackage}};
    }
    const QString active = state.timer.value(u"ActiveState"_s);
    if (active == "inactive"_L1 || active == "failed"_L1) {
        return {{Level::Fault, u"automatic security updates are on, but nothing starts them: %1 is off"_s.arg(kTimer),
                 u"systemctl unmask %1 && systemctl enable --now %1"_s.arg(kTimer)}};
    }
    return {};
}

} // namespace corv::ctl
