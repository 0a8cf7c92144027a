#include "https/Sync.h"

#include "common/AtomicFile.h"
#include "common/HttpsFiles.h"
#include "common/HttpsOptions.h"
#include "common/Paths.h"
#include "https/Choice.h"
#include "https/Inventory.h"
#include "https/Orders.h"
#include "https/Settings.h"
#include "https/Store.h"
#include "https/Work.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QSettings>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr auto kTlsFile = "/etc/corvane/https-tls.conf";
// The mark for apache2.service's reload, which takes it away: all that Apache is about to read has just come up in a
// trial.
constexpr auto kComesUpFile = "/run/corvane/https/comes-up";
constexpr qsizetype kLargestTls = qsizetype{64} * 1024;
// systemd gives a start or reload 90 s in all, of which waiting for the lock is a part.
constexpr int kAllMilliseconds = 40000;

// Fills in which twins there are, and what is to be told of all sites. False where Apache's configuration is broken.
bool prepare(Run *run, const Settings &settings, const QByteArray &tls, qint64 trustedSeconds,
             QMap<QString, SiteState> *sites)
{
    QStringList told;
    const QList<Candidate> candidates = readCandidates(run->now, &told);
    for (const QString &sentence : std::as_const(told))
        say(sentence);

    run->base = baseText(settings.authority, true, tls);
    if (!readProof(run, candidates, trustedSeconds))
        return false;
    run->base = baseText(settings.authority, !run->proof.others.any, tls);
    QStringList domains;
    for (const Candidate &candidate : candidates)
        domains.append(candidate.site.domain);
    noteJobs(&run->state, domains, secondsIn(settings.authority.retry), run->now);
    const Plan planned =
        plan(candidates, run->proof.others, run->state, run->now, roomForOrders(run->state, settings.orders, run->now));
    run->hasUnseen = !planned.unseen.isEmpty();
    *sites = planned.sites;
    for (const Twin &twin : planned.twins) {
        const QByteArray text = twinText(twin, tls);
        const QString print = printOf(text, twin.site.domain, twin.options);
        if (wasRefused(*run, twin.site.account, print)) {
            SiteState &site = (*sites)[twin.site.account];
            const SiteState before = run->state.sites.value(twin.site.account);
            site.leftOut = before.leftOut;
            site.refused = before.refused;
            site.refusedAt = before.refusedAt;
            continue;
        }
        run->twins.append(twin);
        run->texts.append(text);
        run->prints.append(print);
    }
    return true;
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
    if (readLive() == text)
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
        if (isDue(order))
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

int sync(const Manner &manner)
{
    if (!isOn())
        return 0;
    QElapsedTimer timer;
    timer.start();
    if (!makeFolders()) {
        say(u"cannot make the folders for HTTPS"_s);
        return 1;
    }
    const Fd lock = takeLock(manner.lockMilliseconds);
    if (!lock) {
        // A site that was suspended meanwhile must not stay on port 443: all of it is made once more when that run
        // ends.
        say(u"another run does not end; the sites on port 443 stay as they are until it does"_s);
        (void)leaveNote("sites"); // the timer is the other way to the same
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
    if (!prepare(&run, settings, tls, manner.trustedSeconds, &sites)) {
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
    if (manner.isForReload && isPublished && run.comesUp)
        (void)replaceFile(QString::fromLatin1(kComesUpFile), {}, 0600); // without it the reload only takes longer
    return isPublished ? 0 : 1;
}

} // namespace corv::https
