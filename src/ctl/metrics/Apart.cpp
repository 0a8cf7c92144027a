#include "ctl/metrics/Apart.h"

#include "common/Apart.h"

#include <QDeadlineTimer>
#include <QList>

#include <csignal>

#include <sys/prctl.h>

namespace corv::ctl {
namespace {

constexpr int kKillMs = 2'000;

// Programs have sessions of their own, so that they outlive whoever started them, and come to this process then.
void killChildren()
{
    const QDeadlineTimer deadline(kKillMs);
    for (QList<pid_t> left = children(); !left.isEmpty() && !deadline.hasExpired(); left = children()) {
        for (const pid_t child : left) {
            (void)::kill(-child, SIGKILL); // the group that it leads, if it does
            (void)::kill(child, SIGKILL);
            (void)endOf(child, static_cast<int>(deadline.remainingTime()));
        }
    }
}

} // namespace

std::optional<QByteArray> workWithProgramsApart(int milliseconds, const std::function<QByteArray()> &work)
{
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0)
        return {};
    const std::optional<QByteArray> output = workApart(milliseconds, work);
    killChildren();
    return output;
}

} // namespace corv::ctl
