#include "https/Work.h"

#include "common/Account.h"
#include "common/FolderStream.h"
#include "common/HttpsFiles.h"
#include "common/HttpsOptions.h"
#include "common/TimedRun.h"
#include "common/Tree.h"
#include "https/Ends.h"
#include "https/Inventory.h"
#include "https/Orders.h"
#include "https/Probe.h"
#include "https/Prune.h"
#include "https/Settings.h"
#include "https/Store.h"
#include "https/Sync.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QSettings>
#include <QThread>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr auto kInbox = "/run/corvane/https/inbox";
constexpr int kProbeMilliseconds = 90000;
constexpr int kOrdersMilliseconds = 120000;
// Apache writes at each step of an order; one that it has not touched for so long is not being worked on.
constexpr qint64 kBusySeconds = 60;
constexpr unsigned long kPauseMs = 300;
constexpr int kReloadMilliseconds = 100000;

QList<QByteArray> namesIn(int folder)
{
    const FolderStream stream(::fdopendir(::dup(folder)));
    QList<QByteArray> names;
    while (const dirent *entry = stream ? ::readdir(stream.get()) : nullptr) {
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..")
            names.append(name);
    }
    return names;
}

void emptyInbox()
{
    // Apache's user can make anything here, folders and links too, and change it meanwhile; what is left would start
    // the unit again and again.
    const Fd inbox(::open(kInbox, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!inbox)
        return;
    for (const QByteArray &name : namesIn(inbox.get()))
        (void)removeTree(inbox.get(), name.constData()); // one that is kept from it is there the next time
}

// The names whose turn it is, the one that has waited longest first, of sites that are on-line: a suspended one answers
// no probe, and keeps what was seen before.
QStringList dueNames(const QList<Candidate> &candidates, const State &state, qint64 now)
{
    QStringList due;
    for (const Candidate &candidate : candidates) {
        if (candidate.site.suspended || candidate.options.off || !candidate.options.own.isEmpty())
            continue;
        QStringList names{candidate.site.domain};
        if (!candidate.options.noWww)
            names.append(u"www."_s + candidate.site.domain);
        for (const QString &name : std::as_const(names)) {
            if (state.names.value(name).nextAt <= now)
                due.append(name);
        }
    }
    std::stable_sort(due.begin(), due.end(), [&](const QString &left, const QString &right) {
        return state.names.value(left).nextAt < state.names.value(right).nextAt;
    });
    return due;
}

void forgetNames(const QList<Candidate> &candidates, State *state)
{
    QSet<QString> domains;
    for (const Candidate &candidate : candidates)
        domains.insert(candidate.site.domain);
    const auto isNobodys = [&](const QString &name) {
        if (name.startsWith("www."_L1) && domains.contains(name.mid(4)))
            return false;
        return !domains.contains(name);
    };
    state->names.removeIf([&](const auto &entry) { return isNobodys(entry.key()); });
}

void probeNames(const QList<Candidate> &candidates, bool asks, qint64 now)
{
    const State before = loadState();
    const QStringList due = dueNames(candidates, before, now);
    if (due.isEmpty())
        return;
    QMap<QString, Probed> probed;
    if (asks) {
        probed = probe(due, kProbeMilliseconds);
    } else {
        for (const QString &name : due)
            probed.insert(name, {true, {}});
    }
    // Not held while names are asked: a reload of Apache must not wait for that.
    const Fd lock = takeLock(kByWork.lockMilliseconds);
    if (!lock)
        return; // they are due the next time as well
    State state = loadState();
    for (const QString &name : due) {
        // Those before it took all the time: its turn is the next time, before theirs.
        if (!probed.contains(name))
            continue;
        const Probed one = probed.value(name);
        const NameState old = state.names.value(name);
        state.names[name] = after(old, one, now);
        if (state.names[name].leadsHere != old.leadsHere || old.seenAt == 0)
            say(one.leadsHere ? u"%1 leads here"_s.arg(name) : u"%1 does not lead here: %2"_s.arg(name, one.said));
    }
    forgetNames(candidates, &state);
    saveState(state);
}

struct Orders
{
    bool busy = false;    // Apache is getting some
    bool waiting = false; // some have come
};

Orders lookAtOrders(const QList<Candidate> &candidates)
{
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    const State state = loadState();
    Orders orders;
    for (const Candidate &candidate : candidates) {
        qint64 writtenAt = 0;
        const std::optional<Job> job = readJob(candidate.site.domain, &writtenAt);
        // One of a site that is left out is not put into use by any reload.
        if (!job || state.sites.value(candidate.site.account).names.isEmpty())
            continue;
        const bool isFresh = writtenAt > now - kBusySeconds;
        orders.waiting = orders.waiting || job->finished;
        orders.busy = orders.busy || (isFresh && !job->finished && job->errors == 0);
    }
    return orders;
}

bool reload()
{
    const Outcome outcome = runWithin(kReloadMilliseconds, u"systemctl"_s, {u"reload"_s, u"apache2.service"_s});
    if (!outcome.succeeded)
        say(u"Apache cannot be reloaded: "_s + QString::fromUtf8(outcome.errors).trimmed());
    return outcome.succeeded;
}

// Clears away what nobody needs.
void keepHouse(const QList<Candidate> &candidates, qint64 now)
{
    const Fd lock = takeLock(kByWork.lockMilliseconds);
    if (!lock)
        return;
    State state = loadState();
    QStringList domains;
    for (const Candidate &candidate : candidates)
        domains.append(candidate.site.domain);
    QStringList accounts;
    for (const hosting::User &user : hosting::users()) {
        accounts.append(user.name);
        // A site that somebody has edited or disabled is no candidate, and may be one again tomorrow.
        if (hosting::hasMarker(user.comment))
            domains.append(hosting::domainIn(user.comment));
    }
    prune(domains, accounts, &state, now);
    saveState(state);
}

} // namespace

int work()
{
    if (!isOn() || !makeFolders())
        return 0;
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    const Settings settings = readSettings(QSettings(QString::fromLatin1(kSettingsFile), QSettings::IniFormat));
    emptyInbox();
    QStringList told;
    const QList<Candidate> candidates = readCandidates(now, &told);
    probeNames(candidates, settings.probes, now);

    const QDeadlineTimer deadline(kOrdersMilliseconds);
    Orders orders = lookAtOrders(candidates);
    while (orders.busy && !deadline.hasExpired()) {
        QThread::msleep(kPauseMs);
        orders = lookAtOrders(candidates);
    }
    // What comes out of it is what Apache reads anyway, so that there is no harm in making it before its reload.
    const std::optional<QByteArray> before = readLive();
    if (sync(kByWork) != 0)
        return 1;
    const std::optional<QByteArray> after = readLive();
    if ((orders.waiting || before != after) && !reload())
        return 1;
    keepHouse(candidates, now);
    return 0;
}

int ends()
{
    if (!isOn() || !makeFolders())
        return 0;
    const Fd lock = takeLock(kByWork.lockMilliseconds);
    if (!lock) {
        say(u"another run does not end"_s);
        return 1;
    }
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    QStringList told;
    State state = loadState();
    const QStringList warnings = newWarnings(readCandidates(now, &told), &state, now);
    saveState(state);
    for (const QString &sentence : warnings)
        say(sentence);
    // That is how the administrator hears of it: what becomes of this unit is told to him.
    return warnings.isEmpty() ? 0 : 1;
}

bool leaveNote(const char *name)
{
    const Fd inbox(::open(kInbox, O_PATH | O_DIRECTORY | O_CLOEXEC));
    // A pipe in its place is not waited for: it stands for the note as well.
    const Fd note(inbox ? ::openat(inbox.get(), name, O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW, 0600)
                        : -1);
    return bool(note) || errno == ENXIO;
}

int message(const QString &event)
{
    // Of the others, "renewing" comes before each order, and one that is not taken ends it.
    for (const char *counting : {"renewed", "errored"}) {
        if (event == QLatin1StringView(counting))
            return leaveNote(counting) ? 0 : 1;
    }
    return 0;
}

} // namespace corv::https
