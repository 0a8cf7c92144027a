#include "ctl/metrics/JournalReader.h"

#include "common/Child.h"

#include <QDeadlineTimer>
#include <QProcess>
#include <QStandardPaths>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kReadMs = 20'000;
constexpr int kStepMs = 500;
// A journal of months is read in several runs.
constexpr int kMostEntries = 100'000;
// The agent's own lines have some hundred bytes; one without an end is none of them.
constexpr qint64 kLongestLine = 1'048'576;
constexpr qint64 kMicroseconds = 1'000'000;
constexpr qint64 kClockSlack = 60;

// Reads one entry after the other. Returns why it ended before the program did.
QString readEntries(QProcess *process, JournalPlace *place)
{
    const QDeadlineTimer deadline(kReadMs);
    for (int entries = 0;;) {
        while (process->canReadLine()) {
            const std::optional<JournalEntry> entry = parseEntry(process->readLine());
            if (!entry || entry->cursor == place->cursor)
                continue;
            count(entry->message, &place->counts);
            place->cursor = entry->cursor;
            if (++entries == kMostEntries)
                return u"the agent's lines in the journal are more than are read at once; the next run goes on"_s;
        }
        if (process->state() == QProcess::NotRunning)
            return {};
        if (deadline.hasExpired() || process->bytesAvailable() > kLongestLine)
            return u"the journal could not be read within %1 s"_s.arg(kReadMs / 1000);
        // Either may be what there is to be waited for.
        if (!process->waitForReadyRead(static_cast<int>(std::min<qint64>(kStepMs, deadline.remainingTime()))))
            (void)process->waitForFinished(1);
    }
}

} // namespace

QJsonObject objectOf(const JournalPlace &place)
{
    return {{u"since"_s, place.since}, {u"cursor"_s, place.cursor}, {u"counts"_s, objectOf(place.counts)}};
}

std::optional<JournalPlace> placeIn(const QJsonObject &object)
{
    const qint64 since = object.value("since"_L1).toInteger(-1);
    const QString cursor = object.value("cursor"_L1).toString(u"none"_s);
    const std::optional<AgentCounts> counts = countsIn(object.value("counts"_L1).toObject());
    if (since <= 0 || (!cursor.isEmpty() && !isCursor(cursor)) || !counts)
        return {};
    return JournalPlace{since, cursor, *counts};
}

QStringList journalArguments(const JournalPlace &place)
{
    const QString from = place.cursor.isEmpty() ? u"--since=@%1"_s.arg(place.since) : u"--cursor="_s + place.cursor;
    return {u"--quiet"_s,
            u"--no-pager"_s,
            u"--output=json"_s,
            u"--output-fields=MESSAGE,_SYSTEMD_UNIT,_UID,_EXE"_s,
            from,
            u"_SYSTEMD_UNIT="_s + kAgentUnit,
            u"_UID=0"_s,
            u"_EXE="_s + kAgentProgram};
}

QString countOn(JournalPlace *place, qint64 now)
{
    if (QStandardPaths::findExecutable(u"journalctl"_s).isEmpty())
        return u"there is no journalctl"_s;
    // Entries after one of the future would only be found once that has come.
    const bool isOfFuture = std::max(timeOfCursor(place->cursor) / kMicroseconds, place->since) > now + kClockSlack;
    if (isOfFuture)
        *place = {now, {}, {}};
    QProcess process;
    prepareChild(process);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(u"journalctl"_s, journalArguments(*place));
    const QString problem = readEntries(&process, place);
    if (!problem.isEmpty()) {
        killGroup(process);
        return problem;
    }
    if (process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
        return isOfFuture ? u"the clock was set back; the agent's requests are counted anew"_s : QString();
    return u"journalctl failed: "_s + QString::fromUtf8(process.readAllStandardError()).simplified();
}

} // namespace corv::ctl
