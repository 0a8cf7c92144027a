#include "ctl/move/Verdict.h"

#include "common/Psql.h"
#include "ctl/move/Journal.h"

#include <QRandomGenerator>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

// The agent over there may be at a backup, which it does not leave for this.
constexpr int kAskSeconds = 60;
constexpr int kBriefSeconds = 20;
constexpr int kWordParts = 4;

// Of the scripts below, %1 is the account: letters and digits. The three names of the file: nobody has decided yet; it
// stays there; it has left.
const auto kPlace = u"cd /var/lib/corvane && mkdir -pm 0700 moves && cd moves || exit 1\n"_s;

// The agent may not answer at once, hence more than one attempt. One that finds the account gone does nothing. At the
// end the file goes with both of its names, and with no other's that another server may have laid down by now.
const auto kTimer = uR"(systemctl stop corv-move-%1.timer corv-move-%1.service 2>/dev/null
systemctl reset-failed corv-move-%1.service 2>/dev/null
systemd-run --quiet --collect --unit=corv-move-%1 --on-active=%2 --timer-property=AccuracySec=100ms \
    --property=Restart=on-failure --property=RestartSec=5 -- /bin/sh -c 'cd /var/lib/corvane/moves; )"
                    uR"([ -e %1.stays ] || mv -T %1.undecided %1.stays || exit 0; [ ! -e %1.frozen ] || )"
                    uR"(corvctl account read-only %1 off && rm -f %1.frozen && corvctl account resume %1 && )"
                    uR"(find . -maxdepth 1 -samefile %1.stays -delete'
)"_s;

// Where it is frozen the database is writable again, for an account that stays or comes back later.
const auto kThaw =
    u"{ [ ! -e %1.frozen ] || corvctl account read-only %1 off && rm -f %1.frozen; } >/dev/null || exit 1\n"_s;

// %4 is psql. Rows that were ever written, also by a transaction that came to nothing. A session counts its own at the
// latest at its end, before it stops being listed, so nobody may be listed any more. Servers before 15 tell it later.
const auto kCount = uR"sh(tries=0
while :; do
    seen=$(%4 \
        -c "SELECT 'listed ' || count(*) FROM pg_stat_activity WHERE datname = '%1' AND backend_type = 'client backend'" \
        -c "SELECT 'written ' || tup_inserted + tup_updated + tup_deleted FROM pg_stat_database WHERE datname = '%1'
            AND current_setting('track_counts')::bool AND current_setting('server_version_num')::int >= 150000")
    case $seen in 'listed 0'*) break ;; esac
    [ $tries -lt %2 ] || break
    tries=$((tries + 1)); sleep 0.05
done
echo "$seen"
)sh"_s;

// Whether a file is this move's: its second name has the move's word.
const auto kMine = u"mine() { [ %1.\"$1\" -ef %1.by-%3 ]; }\n"_s;
// Of a move that has none: it has no second name.
const auto kMineWithoutWord = u"mine() { [ \"$(stat -c %h %1.\"$1\" 2>/dev/null)\" = 1 ]; }\n"_s;
// What is looked at stays as it is until this has ended: of two servers one waits.
const auto kAlone = u"exec 9<. && flock -w 10 9 || { echo 'another server is at it'; exit 1; }\n"_s;
// A suspension has the user expire, and a resumption undoes that.
const auto kIsSuspended = u"[ \"$(getent shadow %1 | cut -d: -f8)\" = 1 ]"_s;

// The sessions and the rows are looked at so often again.
QString counting(int more)
{
    return QString(kCount).replace("%4"_L1, hosting::psqlInShell()).replace("%2"_L1, QString::number(more));
}

QString scriptOf(const QString &text, const QString &account)
{
    return kPlace + QString(text).replace("%1"_L1, account);
}

QString scriptOf(const QString &text, const QString &account, const QString &word)
{
    return scriptOf(kAlone + (word.isEmpty() ? kMineWithoutWord : kMine) + text, account).replace("%3"_L1, word);
}

} // namespace

std::optional<qint64> writtenIn(const QByteArray &output, bool isAlone)
{
    std::optional<qint64> written;
    bool isListed = true;
    for (const QByteArray &line : output.split('\n')) {
        bool isNumber = false;
        if (line == "listed 0")
            isListed = false;
        else if (const qint64 number = line.startsWith("written ") ? line.mid(8).toLongLong(&isNumber) : 0; isNumber)
            written = number;
    }
    return isAlone && isListed ? std::nullopt : written;
}

QString newWord()
{
    QString word;
    for (int i = 0; i < kWordParts; ++i)
        word += QString::number(QRandomGenerator::system()->generate(), 16).rightJustified(8, u'0');
    return word;
}

QString forgetEarlier(Shell *there, const QString &account)
{
    const auto script = uR"sh(if [ -e %1.left ] && %2; then echo 'it has left that server for another one'; exit 1; fi
rm -f %1.left && sync . || exit 1)sh"_s;
    return there->run(scriptOf(kAlone + QString(script).replace("%2"_L1, kIsSuspended), account), kBriefSeconds)
        .problem;
}

QString beginSwitch(Shell *there, const QString &account, const QString &word, bool isOnline, int seconds)
{
    const auto taken = uR"sh(if [ -e %1.left ]; then echo 'it has left that server meanwhile'; exit 1; fi
if [ -e %1.undecided ] && ! mine undecided; then
    echo 'another server has begun to take it, and ends that with the command that it was begun with;' \
        "where that server is gone: rm $PWD/%1.undecided"
    exit 1
fi
)sh"_s;
    // What the start of that server looks at, should it be restarted now: the timer does not outlive that.
    const QString file = u"rm -f %1.stays %1.undecided %1.by-* && "_s + (isOnline ? u"echo on-line"_s : u":"_s) +
                         u" >%1.by-%3 && ln %1.by-%3 %1.undecided && sync %1.undecided . || exit 1\n"_s;
    const QString timer = isOnline ? QString(kTimer).replace("%2"_L1, QString::number(seconds)) : QString();
    return there->run(scriptOf(taken + file + timer, account, word), kBriefSeconds).problem;
}

QString suspendThere(Shell *there, const QString &account)
{
    return there->run(u"corvctl account suspend "_s + account, kAskSeconds).problem;
}

QString freeze(Shell *there, const QString &account, bool isFrozen, qint64 *written)
{
    const auto freezing = u": >%1.frozen && corvctl account read-only %1 on >/dev/null || exit 1\n"_s;
    // Sessions that had to end may have to count yet. Others come meanwhile, to read; nobody waits for their end.
    const QString script = (isFrozen ? QString() : QString(freezing)) + u"sleep 0.3\n"_s + counting(0);
    const Distant answer = there->run(scriptOf(script, account), kAskSeconds);
    *written = writtenIn(answer.output, false).value_or(-1);
    return answer.problem;
}

bool isAsFrozen(Shell *there, const QString &account, qint64 written)
{
    const Distant answer = there->run(scriptOf(counting(20), account), kBriefSeconds);
    return written >= 0 && answer.problem.isEmpty() && writtenIn(answer.output, true) == written;
}

QString thaw(Shell *there, const QString &account)
{
    return there->run(scriptOf(kThaw, account), kAskSeconds).problem;
}

QString decide(Shell *there, const QString &account, const QString &word)
{
    // The timer does nothing any more once the file has its new name, and a loss of power must not give it back the old
    // one: the account is served here by then. What has been resumed by hand is not expired.
    const auto script = uR"sh(mine left ||
    { %2 && mine undecided && mv -T %1.undecided %1.left 2>/dev/null; } ||
    { echo 'the account was resumed there meanwhile'; exit 1; }
sync . || exit 1
systemctl stop corv-move-%1.timer 2>/dev/null
exit 0)sh"_s;
    return there->run(scriptOf(QString(script).replace("%2"_L1, kIsSuspended), account, word), kBriefSeconds).problem;
}

QString giveUp(Shell *there, const QString &account, const QString &word, bool wasOnline, bool *isOurs)
{
    const QString resume = kThaw + u"    corvctl account resume %1 || exit 1\n"_s;
    // Whoever decided it may have been cut off before it was on the disk.
    const auto script = uR"(if mine left; then sync . && echo 'it has left'; exit; fi
if mine stays || { mine undecided && mv -T %1.undecided %1.stays 2>/dev/null; }; then
    systemctl stop corv-move-%1.timer 2>/dev/null
%2    rm -f %1.stays
fi
rm -f %1.by-%3
exit 0)"_s;
    const Distant answer = there->run(
        scriptOf(QString(script).replace("%2"_L1, wasOnline ? resume : QString()), account, word), kAskSeconds);
    *isOurs = answer.problem.isEmpty() && answer.output.contains("it has left");
    return answer.problem;
}

} // namespace corv::ctl::moving
