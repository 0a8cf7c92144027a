#include "https/Sync.h"

#include "common/AtomicFile.h"
#include "common/HttpsFiles.h"
#include "common/HttpsOptions.h"
#include "common/Paths.h"
#include "https/Inventory.h"
#include "https/Orders.h"
#include "https/Rehearsal.h"
#include "https/Settings.h"
#include "https/Sift.h"
#include "https/Store.h"
#include "https/Work.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QSettings>

#include <algorithm>
#include <optional>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr auto kTlsFile = "/etc/corvane/https-tls.conf";
constexpr qsizetype kLargestTls = qsizetype{64} * 1024;
constexpr qsizetype kLargestLive = qsizetype{64} * 1024 * 1024;
constexpr auto kTrialFile = "/run/corvane/https/trial.conf";

// systemd gives a start or reload 90 s in all.
constexpr int kAllMilliseconds = 50000;
constexpr int kOneMilliseconds = 20000;
constexpr int kDumpMilliseconds = 15000;
// One that was refused is tried again unchanged after so long: what it clashed with may have changed.
constexpr qint64 kRefusedSeconds = 3600;

// One run: what goes in, and what became of it.
struct Run
{
    qint64 now = 0;
    QByteArray base;
    QList<Twin> twins;
    QList<QByteArray> texts; // of the twins
    State state;
    QDeadlineTimer deadline;
    bool storeIsFull = false;
    bool hasUnseen = false; // names that were never asked whether they lead here
    QString complaint;      // the last
};

QByteArray textOf(const Run &run, const QList<int> &places)
{
    QByteArray text = run.base;
    for (const int place : places)
        text += run.texts.at(place);
    return text;
}

// What Apache makes of the twins at these places.
Verdict attempt(Run *run, const QList<int> &places)
{
    if (run->deadline.hasExpired())
        return Verdict::NoTime;
    const QString path = QString::fromLatin1(kTrialFile);
    if (!replaceFile(path, textOf(*run, places), 0644)) {
        run->complaint = u"cannot write %1"_s.arg(path);
        return Verdict::NoTime;
    }
    const auto time = static_cast<int>(std::min<qint64>(run->deadline.remainingTime(), kOneMilliseconds));
    ++run->state.rehearsals;
    Rehearsal rehearsal = rehearse(path, run->storeIsFull, time);
    run->state.rehearsed = rehearsal.end != Rehearsal::End::NoSpaces;
    if (!run->state.rehearsed)
        rehearsal = readOnly(path, time);
    run->complaint = rehearsal.complaint;
    if (rehearsal.end == Rehearsal::End::Up)
        return Verdict::Up;
    // Whatever does not end in its time, the others are not to wait for.
    return rehearsal.end == Rehearsal::End::NoTime ? Verdict::NoTime : Verdict::Down;
}

// What Apache has of others on port 443; nothing where its configuration is broken without any of ours.
std::optional<Others> readOthers(const Run &run)
{
    const QString path = QString::fromLatin1(kTrialFile);
    if (!replaceFile(path, run.base, 0644))
        return Others();
    // The base is among what is printed: of a port with one site alone Apache does not print the other names.
    const QByteArray dump = dumpVhosts(path, kDumpMilliseconds);
    if (dump.isEmpty() && readOnly(u"/dev/null"_s, kDumpMilliseconds).end == Rehearsal::End::Down)
        return std::nullopt;
    return parseVhosts(dump, path);
}

// Whether Apache was seen not to come up with it as it is.
bool wasRefused(const Run &run, const Twin &twin, const QByteArray &text)
{
    const SiteState before = run.state.sites.value(twin.site.account);
    return !before.refused.isEmpty() && before.refusedAt <= run.now && run.now < before.refusedAt + kRefusedSeconds &&
           before.refused == printOf(text, twin.site.domain, twin.options);
}

// Fills in which twins there are, and what is to be told of all sites. False where Apache's configuration is broken.
bool prepare(Run *run, const Settings &settings, const QByteArray &tls, QMap<QString, SiteState> *sites)
{
    QStringList told;
    const QList<Candidate> candidates = readCandidates(run->now, &told);
    for (const QString &sentence : std::as_const(told))
        say(sentence);

    run->base = baseText(settings.authority, true, tls);
    const std::optional<Others> others = readOthers(*run);
    if (!others)
        return false;
    run->base = baseText(settings.authority, !others->any, tls);
    QStringList domains;
    for (const Candidate &candidate : candidates)
        domains.append(candidate.site.domain);
    noteJobs(&run->state, domains, secondsIn(settings.authority.retry));
    const Plan planned =
        plan(candidates, *others, run->state, run->now, roomForOrders(run->state, settings.orders, run->now));
    run->hasUnseen = !planned.unseen.isEmpty();
    *sites = planned.sites;
    for (const Twin &twin : planned.twins) {
        const QByteArray text = twinText(twin, tls);
        SiteState &site = (*sites)[twin.site.account];
        if (wasRefused(*run, twin, text)) {
            const SiteState before = run->state.sites.value(twin.site.account);
            site.leftOut = before.leftOut;
            site.refused = before.refused;
            site.refusedAt = before.refusedAt;
            continue;
        }
        run->twins.append(twin);
        run->texts.append(text);
    }
    return true;
}

// Remembers why Apache does not come up with a twin.
void refuse(Run *run, int place, const QString &complaint, QMap<QString, SiteState> *sites)
{
    const Twin &twin = run->twins.at(place);
    SiteState &site = (*sites)[twin.site.account];
    site.leftOut = complaint;
    site.refused = printOf(run->texts.at(place), twin.site.domain, twin.options);
    site.refusedAt = run->now;
}

// The twins that Apache is known, or for want of time believed, to come up with.
QList<int> choose(Run *run, QMap<QString, SiteState> *sites)
{
    QMap<int, QString> complaints; // of those that were tried alone beside good ones
    const Sifted sifted = sift(static_cast<int>(run->twins.size()), [&](const QList<int> &places) {
        const Verdict verdict = attempt(run, places);
        if (verdict == Verdict::Down && !places.isEmpty())
            complaints.insert(places.last(), run->complaint);
        return verdict;
    });
    run->state.none.clear();
    if (!sifted.baseIsGood && sifted.good.isEmpty() && !run->deadline.hasExpired())
        run->state.none = run->complaint;
    for (const int place : sifted.bad)
        refuse(run, place, complaints.value(place), sites);

    // With no time left, what was there before and has not changed stays: Apache has come up with it.
    QList<int> chosen = sifted.good;
    const QByteArray live = run->state.none.isEmpty() && !sifted.undecided.isEmpty()
                                ? readWhole(QString::fromLatin1(kLiveFile), kLargestLive).value_or(QByteArray())
                                : QByteArray();
    for (const int place : sifted.undecided) {
        if (live.contains(run->texts.at(place)))
            chosen.append(place);
        else
            (*sites)[run->twins.at(place).site.account].leftOut =
                run->state.none.isEmpty() ? u"there was no time to try it"_s : u"there is no HTTPS at all"_s;
    }
    std::sort(chosen.begin(), chosen.end());
    return chosen;
}

// Says of each site what was not true of it the last time.
void tell(const QMap<QString, SiteState> &before, const QMap<QString, SiteState> &now)
{
    for (auto site = now.begin(); site != now.end(); ++site) {
        const SiteState old = before.value(site.key());
        if (site->leftOut != old.leftOut)
            say(site->leftOut.isEmpty() ? u"%1: on port 443"_s.arg(site.key())
                                        : u"%1: left out: %2"_s.arg(site.key(), site->leftOut));
        if (site->withoutWww != old.withoutWww && !site->withoutWww.isEmpty())
            say(u"%1: without www.%2: %3"_s.arg(site.key(), site->domain, site->withoutWww));
    }
}

// Puts the text where Apache reads it.
bool publish(const QByteArray &text)
{
    const QString path = QString::fromLatin1(kLiveFile);
    if (readWhole(path, kLargestLive) == text)
        return true;
    if (replaceFile(path, text, 0644))
        return true;
    say(u"cannot write %1"_s.arg(path));
    return false;
}

// Remembers when Apache is first told to get a certificate, and has it begin anew where one failed.
void noteOrders(Run *run, const QList<int> &chosen)
{
    for (const int place : chosen) {
        const Twin &twin = run->twins.at(place);
        if (!twin.renews || twin.certified)
            continue;
        OrderState &order = run->state.orders[twin.site.domain];
        if (order.startedAt == 0)
            order.startedAt = run->now;
        if (order.nextAt > 0)
            forgetJob(twin.site.domain); // its pause is over: planned as it is only then
        order.nextAt = 0;
    }
}

} // namespace

bool isOn()
{
    return exists(QString::fromLatin1(kEnabledSite));
}

int sync()
{
    if (!isOn())
        return 0;
    QElapsedTimer timer;
    timer.start();
    if (!makeFolders()) {
        say(u"cannot make the folders for HTTPS"_s);
        return 1;
    }
    const Fd lock = takeLock();
    if (!lock) {
        say(u"another run does not end; the sites on port 443 stay as they are"_s);
        return 1;
    }

    Run run;
    run.now = QDateTime::currentSecsSinceEpoch();
    run.deadline.setRemainingTime(kAllMilliseconds);
    run.state = loadState();
    run.state.rehearsals = 0;
    run.state.rehearsed = true;
    run.storeIsFull = isStoreFull();
    if (run.now < run.state.rescuedUntil)
        return publish({}) ? 0 : 1;

    const Settings settings = readSettings(QSettings(QString::fromLatin1(kSettingsFile), QSettings::IniFormat));
    if (!settings.problem.isEmpty())
        say(settings.problem);
    const QByteArray tls = tlsDirectives(readWhole(QString::fromLatin1(kTlsFile), kLargestTls).value_or(QByteArray()));
    QMap<QString, SiteState> sites;
    if (!prepare(&run, settings, tls, &sites)) {
        // Apache does not read it either before it is mended.
        say(u"Apache's configuration is broken; the sites on port 443 stay as they are"_s);
        return 0;
    }
    const QList<int> chosen = choose(&run, &sites);
    for (const int place : chosen)
        sites[run.twins.at(place).site.account].names = namesOf(run.twins.at(place));
    const bool isPublished = publish(run.state.none.isEmpty() ? textOf(run, chosen) : QByteArray());

    tell(run.state.sites, sites);
    if (!run.state.none.isEmpty())
        say(u"no HTTPS at all: "_s + run.state.none);
    run.state.sites = sites;
    noteOrders(&run, chosen);
    run.state.at = run.now;
    run.state.milliseconds = static_cast<int>(timer.elapsed());
    saveState(run.state);
    if (run.hasUnseen && !leaveNote("sites"))
        say(u"nobody can be told of the new names"_s);
    return isPublished ? 0 : 1;
}

} // namespace corv::https
