#include "ctl/commands/Status.h"

#include "common/InHand.h"
#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Meant.h"
#include "ctl/Session.h"
#include "ctl/commands/StatusHere.h"
#include "ctl/screen/Busy.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Wrap.h"

#include <QDateTime>
#include <QStringList>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qint64 kLongRequest = 2000; // milliseconds

constexpr int kMarkColumns = 2;
constexpr int kTopicColumns = 10;

void show(const Session &session, const QString &host, const QList<StatusLine> &lines)
{
    const Terminal &terminal = session.terminal;
    const bool isWell = std::none_of(lines.cbegin(), lines.cend(),
                                     [](const auto &line) { return line.needsAttention || line.isUnknown; });
    printLine(coloured(terminal, isWell ? Colour::Good : Colour::Warning, escaped(statusHeading(host, lines))));
    printLine({});
    for (const StatusLine &line : lines) {
        // The mark says it where there are no colours.
        const QString mark = line.needsAttention ? coloured(terminal, Colour::Warning, u"!"_s) : u" "_s;
        QString begin = u"%1 %2"_s.arg(mark, escaped(line.topic).leftJustified(kTopicColumns));
        for (const QString &part : wrapped(escaped(line.text), terminal.columns - kTopicColumns - kMarkColumns)) {
            printLine(begin + part);
            begin = QString(kTopicColumns + kMarkColumns, u' ');
        }
    }
}

void showPlain(const QList<StatusLine> &lines)
{
    QString topic;
    for (const StatusLine &line : lines) {
        topic = line.topic.isEmpty() ? topic : line.topic;
        const QString state = line.needsAttention ? u"attention"_s : line.isUnknown ? u"unknown"_s : u"ok"_s;
        printLine(u"%1\t%2\t%3"_s.arg(escaped(topic.toLower()), state, escaped(line.text)));
    }
}

// The agent answers nothing before it is done with it, so it is told at once. What has just begun is over in a moment.
void tellOfRequestInHand(const Session &session)
{
    if (!session.options.hosts.empty() || session.options.printOnly)
        return;
    const std::optional<InHand> request = readInHand(kInHandPath);
    if (request && bootMilliseconds() - request->began >= kLongRequest)
        note(u"the agent is busy with %1; the rest follows when it is done"_s.arg(named(*request)));
}

int status(Session &session, const Given &)
{
    Replies replies;
    tellOfRequestInHand(session);
    // What the agent refuses is part of the picture; an agent that does not answer is the end of it.
    for (const QString &command : {u"system.info"_s, u"services.status"_s, u"system.disks"_s, u"security.status"_s,
                                   u"updates.status"_s, u"backup.status"_s, u"quota.status"_s, u"hosting.usage"_s}) {
        // Without quotas the agent would measure all homes, and do nothing else meanwhile.
        const bool measures = !replies.value("quota.status"_L1).toObject().value("enabled"_L1).toBool();
        if (command == "hosting.usage"_L1 && measures)
            continue;
        const Answer answer = ask(session, command);
        if (answer.fate == Answer::Fate::Printed)
            continue;
        if (answer.fate != Answer::Fate::Replied)
            return settled(session, answer).value_or(kNoConnection);
        replies.insert(command, answer.reply);
    }
    if (session.options.printOnly)
        return kDone;
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    const QJsonObject here = readHere(session, replies, now);
    if (session.options.json) {
        if (!here.isEmpty())
            replies.insert(u"here"_s, here);
        const QByteArray line = compactJson(replies);
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return kDone;
    }

    const std::optional<QStringList> names = accountNames(session);
    QList<StatusLine> lines = statusLines(replies, names ? std::optional(names->size()) : std::nullopt, now);
    addHere(here, newestBackup(replies), &lines);
    if (session.options.plain)
        showPlain(lines);
    else
        show(session, replies.value("system.info"_L1).toObject().value("hostname"_L1).toString(u"the server"_s), lines);
    return kDone;
}

} // namespace

Command statusCommand()
{
    return {"status", "Tell on one screen whether the server is well", {}, status, {}, true};
}

} // namespace corv::ctl
