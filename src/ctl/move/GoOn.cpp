#include "ctl/move/GoOn.h"

#include "common/Run.h"

#include <QByteArray>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

// Most switches are over by then; one that is not has the turn, and this waits for it. Of one that was killed the
// account may be served by nobody until then.
const auto kSoon = u"--on-active=4"_s;
const auto kUnit = u"corv-moving-"_s;

} // namespace

void beginWatch(const Record &record)
{
    endWatch(record.account);
    // The name is not confirmed, so a move that is not decided ends before its switch, with 2; one that was done with
    // something to tell ends with 1. Where the old server is not reached it ends with 3, and is begun again.
    QStringList words = {u"--quiet"_s,
                         u"--collect"_s,
                         u"--unit=%1%2"_s.arg(kUnit, record.account),
                         kSoon,
                         u"--timer-property=AccuracySec=100ms"_s,
                         u"--property=Restart=on-failure"_s,
                         u"--property=RestartSec=10"_s,
                         u"--property=SuccessExitStatus=1 2"_s,
                         u"--"_s,
                         u"/usr/bin/corvctl"_s,
                         u"account"_s,
                         u"move"_s,
                         record.account,
                         record.host};
    if (record.isBack)
        words.append(u"--back"_s);
    (void)hosting::run(u"systemd-run"_s, words);
}

void endWatch(const QString &account)
{
    QStringList units = {u"%1%2.timer"_s.arg(kUnit, account)};
    // It waits for this one to end, to do nothing then. The service itself may be what ends it, though.
    if (qgetenv("SYSTEMD_EXEC_PID") != QByteArray::number(::getpid()))
        units.append(u"%1%2.service"_s.arg(kUnit, account));
    // What was never begun is none to stop.
    (void)hosting::run(u"systemctl"_s, QStringList{u"stop"_s} + units);
}

} // namespace corv::ctl::moving
