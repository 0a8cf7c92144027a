#include "ctl/metrics/Collect.h"

#include "common/Json.h"
#include "ctl/metrics/Apart.h"
#include "ctl/metrics/Collectors.h"

#include <QElapsedTimer>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kSoonMs = 30'000;
constexpr int kLateMs = 120'000;
// Less than an hour, so that it does not slip by one interval of the timer each time.
constexpr qint64 kHourly = 3'450;

struct Collector
{
    const char *name;
    Collected (*collect)(const Circumstances &here);
    int milliseconds; // that it may take
    qint64 every;     // seconds from one time to the next; 0: at each run
};

// A topic that is to be collected gets a line here, its metrics in Table.cpp, and a file beside these for its reading.
// The agent's own commands come first: they count themselves.
constexpr Collector kCollectors[] = {
    {"agent", collectAgent, kSoonMs, 0},           {"security", collectSecurity, kLateMs, 0},
    {"updates", collectUpdates, kLateMs, kHourly}, {"requests", collectRequests, kSoonMs, 0},
    {"accounts", collectAccounts, kSoonMs, 0},     {"use", collectUse, kSoonMs, 0},
    {"disks", collectDisks, kSoonMs, 0},           {"services", collectServices, kLateMs, 0},
    {"backups", collectBackups, kSoonMs, 0},       {"offsite", collectOffsite, kSoonMs, 0},
    {"https", collectHttps, kSoonMs, 0},           {"doctor", collectDoctor, kLateMs, kHourly},
};

QByteArray textOf(const Collected &collected)
{
    return compactJson(
        {{u"samples"_s, arrayOf(collected.samples)}, {u"keep"_s, collected.keep}, {u"problem"_s, collected.problem}});
}

// Keeps what has been left beside those that were there before.
void keepStuck(const QJsonArray &before, QJsonObject *entry)
{
    QJsonArray stuck;
    for (const auto &process : unendedChildren()) {
        if (!before.contains(process))
            stuck.append(process);
    }
    entry->remove(u"stuck"_s);
    if (!stuck.isEmpty())
        entry->insert(u"stuck"_s, stuck);
}

// What is kept of a collector: what it asked for ("keep"); its samples, where it does not work at each run; when it
// last succeeded ("success"), how it fared the last time ("failed") and how long that took ("seconds"); and what it has
// left that cannot be ended ("stuck"). While that is there it is not begun again: each run would leave more.
// Returns why not all could be collected; empty where it could.
QString work(const Collector &collector, const Circumstances &here, QJsonObject *entry)
{
    QElapsedTimer clock;
    clock.start();
    if (const std::optional<pid_t> stuck = firstUnended(entry->value("stuck"_L1).toArray())) {
        entry->insert(u"failed"_s, true);
        entry->insert(u"seconds"_s, 0);
        if (collector.every == 0)
            entry->remove(u"samples"_s);
        return u"the process %1 of a run before still waits for a disk or share that does not answer"_s.arg(*stuck);
    }
    const QJsonArray before = unendedChildren();
    const std::optional<QByteArray> output =
        workWithProgramsApart(collector.milliseconds, [&] { return textOf(collector.collect(here)); });
    keepStuck(before, entry);
    const QJsonObject given = parseObject(output.value_or(QByteArray()));
    const bool isWhole = given.value("samples"_L1).isArray();
    constexpr int kMilliseconds = 1'000;
    const QString problem = isWhole
                                ? given.value("problem"_L1).toString()
                                : u"nothing could be told within %1 s"_s.arg(collector.milliseconds / kMilliseconds);

    entry->insert(u"failed"_s, !problem.isEmpty());
    entry->insert(u"seconds"_s, static_cast<double>(clock.elapsed()) / kMilliseconds);
    if (problem.isEmpty())
        entry->insert(u"success"_s, here.now);
    if (isWhole) {
        entry->insert(u"keep"_s, given.value("keep"_L1));
        entry->insert(u"samples"_s, given.value("samples"_L1));
    } else if (collector.every == 0) {
        entry->remove(u"samples"_s); // what was true the last time is no news
    }
    return problem;
}

bool isDue(const Collector &collector, const QJsonObject &before, qint64 now)
{
    const qint64 last = before.value("success"_L1).toInteger();
    return last > now || now - last >= collector.every || before.value("failed"_L1).toBool();
}

} // namespace

QList<Sample> fate(const QString &collector, bool isSuccess, double seconds, qint64 lastSuccess)
{
    return {{u"corvane_collector_success"_s, {collector}, isSuccess ? 1.0 : 0.0},
            {u"corvane_collector_last_success_timestamp_seconds"_s, {collector}, static_cast<double>(lastSuccess)},
            {u"corvane_collector_duration_seconds"_s, {collector}, seconds}};
}

Run collect(const QString &settings, const QByteArray &socket, const QJsonObject &state, qint64 now, bool isFresh)
{
    Run run;
    for (const Collector &collector : kCollectors) {
        const QString name = QString::fromLatin1(collector.name);
        QJsonObject entry = state.value(name).toObject();
        if (isFresh || isDue(collector, entry, now)) {
            const Circumstances here = {settings, socket, now, entry.value("keep"_L1).toObject()};
            if (const QString problem = work(collector, here, &entry); !problem.isEmpty())
                run.problems.append(u"%1: %2"_s.arg(name, problem));
        }
        run.samples += samplesIn(entry.value("samples"_L1).toArray());
        run.samples += fate(name, !entry.value("failed"_L1).toBool(), entry.value("seconds"_L1).toDouble(),
                            entry.value("success"_L1).toInteger());
        if (collector.every == 0)
            entry.remove(u"samples"_s);
        run.state.insert(name, entry);
    }
    return run;
}

} // namespace corv::ctl
