#include "common/Environment.h"
#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/Turn.h"
#include "ctl/commands/RestoreText.h"
#include "ctl/metrics/Collect.h"
#include "ctl/metrics/Exposition.h"
#include "ctl/metrics/State.h"
#include "ctl/metrics/Table.h"
#include "ctl/metrics/Textfile.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Wrap.h"

#include <QDateTime>
#include <QElapsedTimer>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr double kMilliseconds = 1'000;

QStringList labelsOf(const Metric &metric)
{
    return QString::fromLatin1(metric.labels).split(u' ', Qt::SkipEmptyParts);
}

int list(const Session &session)
{
    QJsonArray array;
    for (const Metric &metric : allMetrics()) {
        const QString name = QString::fromLatin1(metric.name);
        const QString type = QString::fromLatin1(metric.type);
        const QString help = QString::fromLatin1(metric.help);
        const QStringList labels = labelsOf(metric);
        array.append(QJsonObject{{u"name"_s, name},
                                 {u"type"_s, type},
                                 {u"labels"_s, QJsonArray::fromStringList(labels)},
                                 {u"help"_s, help}});
        if (session.options.json)
            continue;
        if (session.options.plain) {
            printLine(QStringList{name, type, labels.join(u' '), help}.join(u'\t'));
            continue;
        }
        printLine(labels.isEmpty() ? name : u"%1{%2}"_s.arg(name, labels.join(", "_L1)));
        const int width = session.terminal.out ? session.terminal.columns : 0;
        for (const QString &line : wrapped(u"%1: %2"_s.arg(type, help), width > 2 ? width - 2 : 78))
            printLine(u"  "_s + line);
    }
    if (session.options.json)
        print(compactJson({{u"ok"_s, true}, {u"metrics"_s, array}}) + '\n');
    return kDone;
}

// As one line of JSON: a number with its name and its labels' names.
QByteArray jsonOf(const QList<Sample> &samples)
{
    QJsonArray array;
    for (const Sample &sample : samples) {
        const Metric *metric = metricNamed(QLatin1StringView(sample.metric.toLatin1()));
        const QStringList names = metric ? labelsOf(*metric) : QStringList();
        if (!metric || names.size() != sample.labels.size())
            continue;
        QJsonObject labels;
        for (qsizetype i = 0; i < names.size(); ++i)
            labels.insert(names[i], sample.labels[i]);
        array.append(QJsonObject{{u"name"_s, sample.metric}, {u"labels"_s, labels}, {u"value"_s, sample.value}});
    }
    return compactJson({{u"ok"_s, true}, {u"samples"_s, array}}) + '\n';
}

// Collects all, and keeps what the next run goes on from, before anybody is told a number that rests on it.
QList<Sample> collectAndKeep(const Session &session, bool isFresh)
{
    QElapsedTimer clock;
    clock.start();
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    QString damage;
    const QJsonObject before = readMetricsState(&damage);
    Run run = collect(settingsPath(session.options), session.client.socketPath(), before, now, isFresh);
    const QString problem = keepMetricsState(run.state);
    for (const QString &one : {damage, problem}) {
        if (!one.isEmpty())
            run.problems.append(u"state: "_s + one);
    }
    for (const QString &one : run.problems)
        note(one);
    return run.samples + fate(u"state"_s, damage.isEmpty() && problem.isEmpty(),
                              static_cast<double>(clock.elapsed()) / kMilliseconds, now);
}

int metrics(Session &session, const Given &given)
{
    if (given.has("--list"))
        return list(session);
    if (session.options.printOnly) {
        for (const QString &command : {u"ping"_s, u"security.status"_s, u"updates.status"_s})
            (void)ask(session, command);
        return kDone;
    }
    if (const std::optional<int> end = refuseElsewhere(session, u"metrics"_s))
        return *end;

    cleanEnvironment();
    if (const QString problem = makeMetricsFolder(); !problem.isEmpty())
        return refuse(session, problem);
    QString problem;
    Fd turn;
    {
        const InterruptGuard guard;
        turn = takeTurn(kMetricsLock, u"Another run of corvctl metrics"_s, &problem);
        if (!turn)
            return interrupted() ? interruptedStatus() : refuse(session, problem);
    }
    const QList<Sample> samples = collectAndKeep(session, given.has("--fresh"));
    if (given.has("--textfile")) {
        const QString path = given.text("--textfile");
        if (problem = writeTextfile(path, exposition(samples)); !problem.isEmpty())
            return refuse(session, problem);
        if (session.options.json)
            print(compactJson({{u"ok"_s, true}, {u"file"_s, path}}) + '\n');
        else if (session.terminal.out) // the timer's runs leave no line each in the journal
            printLine(escaped(u"%1 is written"_s.arg(path)));
        return kDone;
    }
    const QByteArray line = session.options.json ? jsonOf(samples) : exposition(samples);
    print(session.options.json && session.terminal.out ? escapedJson(line.trimmed()) + '\n' : line);
    return kDone;
}

} // namespace

Command metricsCommand()
{
    return {"metrics",
            "Print figures on this server for Prometheus; corv-metrics.timer writes them for its node exporter",
            {{"--textfile", "write them to this file, in one piece, instead of printing them", Kind::Value},
             {"--fresh", "collect now what is otherwise collected once an hour: the doctor's findings, updates",
              Kind::Flag},
             {"--list", "list the metrics that there are, and what they mean", Kind::Flag}},
            metrics};
}

} // namespace corv::ctl
