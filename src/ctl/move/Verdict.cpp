#include "ctl/move/Verdict.h"

#include "ctl/move/Journal.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

// The agent over there may be at a backup, which it does not leave for this.
constexpr int kAskSeconds = 60;
constexpr int kBriefSeconds = 20;

// Of the scripts below, %1 is the account: letters and digits. The three names of the file: nobody has decided yet; it
// stays there; it has left.
const auto kPlace = u"cd /var/lib/corvane && mkdir -pm 0700 moves && cd moves || exit 1\n"_s;

// The agent may not answer at once, hence more than one attempt. One that finds the account gone does nothing.
const auto kTimer = uR"(systemctl stop corv-move-%1.timer corv-move-%1.service 2>/dev/null
systemctl reset-failed corv-move-%1.service 2>/dev/null
systemd-run --quiet --collect --unit=corv-move-%1 --on-active=%2 --timer-property=AccuracySec=100ms \
    --property=Restart=on-failure --property=RestartSec=5 -- /bin/sh -c \
    'cd /var/lib/corvane/moves; [ -e %1.stays ] || mv -T %1.undecided %1.stays || exit 0; corvctl account resume %1 && rm %1.stays'
)"_s;

QString scriptOf(const QString &text, const QString &account)
{
    return kPlace + QString(text).replace("%1"_L1, account);
}

} // namespace

QString beginSwitch(Shell *there, const QString &account, bool isOnline, int seconds)
{
    // What the start of that server looks at, should it be restarted now: the timer does not outlive that.
    const QString file = u"rm -f %1.stays %1.left && "_s + (isOnline ? u"echo on-line"_s : u":"_s) +
                         u" >%1.undecided || exit 1\n"_s;
    const QString timer = isOnline ? QString(kTimer).replace("%2"_L1, QString::number(seconds)) : QString();
    return there->run(scriptOf(file + timer, account), kBriefSeconds).problem;
}

QString suspendThere(Shell *there, const QString &account)
{
    return there->run(u"corvctl account suspend "_s + account, kAskSeconds).problem;
}

QString decide(Shell *there, const QString &account)
{
    // The timer does nothing any more once the file has its new name. What has been resumed by hand is not expired.
    const auto script = uR"sh([ -e %1.left ] && exit 0
[ "$(getent shadow %1 | cut -d: -f8)" = 1 ] && mv -T %1.undecided %1.left 2>/dev/null ||
    { echo 'the account was resumed there meanwhile'; exit 1; }
systemctl stop corv-move-%1.timer 2>/dev/null
exit 0)sh"_s;
    return there->run(scriptOf(script, account), kBriefSeconds).problem;
}

QString giveUp(Shell *there, const QString &account, bool wasOnline, bool *isOurs)
{
    const auto resume = u"    corvctl account resume %1 || exit 1\n"_s;
    const auto script = uR"([ -e %1.left ] && { echo 'it has left'; exit 0; }
if [ -e %1.stays ] || mv -T %1.undecided %1.stays 2>/dev/null; then
    systemctl stop corv-move-%1.timer 2>/dev/null
%2    rm -f %1.stays
fi
exit 0)"_s;
    const Distant answer =
        there->run(scriptOf(QString(script).replace("%2"_L1, wasOnline ? resume : QString()), account), kAskSeconds);
    *isOurs = answer.problem.isEmpty() && answer.output.contains("it has left");
    return answer.problem;
}

} // namespace corv::ctl::moving
