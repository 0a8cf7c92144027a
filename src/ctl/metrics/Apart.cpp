#include "ctl/metrics/Apart.h"

#include "common/Apart.h"
#include "common/StoppedPhp.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QJsonObject>
#include <QList>

#include <csignal>

#include <sys/prctl.h>

using namespace Qt::Literals::StringLiterals;

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

// When it began, in the kernel's ticks as a text, for a number of JSON's is none of 64 bits; empty where there is none.
QString beginningOf(pid_t pid)
{
    QFile file(u"/proc/%1/stat"_s.arg(pid));
    const QByteArray line = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    const std::optional<php::ProcessState> state = php::parseProcessState(line.toStdString());
    return state ? QString::number(state->began) : QString();
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

QJsonArray unendedChildren()
{
    QJsonArray processes;
    for (const pid_t child : children()) {
        if (!endOf(child, 0))
            processes.append(QJsonObject{{u"pid"_s, child}, {u"began"_s, beginningOf(child)}});
    }
    return processes;
}

std::optional<pid_t> firstUnended(const QJsonArray &processes)
{
    for (const auto &value : processes) {
        const QJsonObject process = value.toObject();
        const QString began = process.value("began"_L1).toString();
        const int pid = process.value("pid"_L1).toInt();
        if (pid > 0 && !began.isEmpty() && beginningOf(pid) == began)
            return pid;
    }
    return {};
}

} // namespace corv::ctl
