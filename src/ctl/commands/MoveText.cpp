#include "ctl/commands/MoveText.h"

#include "common/Json.h"
#include "ctl/Session.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"
#include "ctl/screen/Terminal.h"
#include "ctl/screen/Wrap.h"

#include <QJsonArray>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

using moving::Check;

constexpr int kLevelColumns = 12;
constexpr int kAboutColumns = 12;

QString levelText(Check::Level level)
{
    switch (level) {
    case Check::Level::Told:
        return u"note"_s;
    case Check::Level::InTheWay:
        return u"in the way"_s;
    default:
        return u"well"_s;
    }
}

Colour colourOf(Check::Level level)
{
    switch (level) {
    case Check::Level::Told:
        return Colour::Warning;
    case Check::Level::InTheWay:
        return Colour::Bad;
    default:
        return Colour::Good;
    }
}

// What these are about that are in the way, each once.
QStringList inTheWay(const QList<Check> &checks)
{
    QStringList abouts;
    for (const Check &check : checks) {
        if (check.level == Check::Level::InTheWay)
            abouts.append(check.about);
    }
    abouts.removeDuplicates();
    return abouts;
}

// In full: what is shortened to fit a table is what has to be read.
void showChecks(const Terminal &terminal, const QList<Check> &checks)
{
    for (const Check &check : checks) {
        QString begin = coloured(terminal, colourOf(check.level), levelText(check.level).leftJustified(kLevelColumns)) +
                        check.about.leftJustified(kAboutColumns);
        for (const QString &line : wrapped(escaped(check.text), terminal.columns - kLevelColumns - kAboutColumns)) {
            printLine(begin + line);
            begin = QString(kLevelColumns + kAboutColumns, u' ');
        }
    }
}

void showJson(const Session &session, const QString &account, const QString &host, const moving::There &there,
              const QList<Check> &checks)
{
    QJsonArray all;
    for (const Check &check : checks)
        all.append(
            QJsonObject{{u"about"_s, check.about}, {u"level"_s, levelText(check.level)}, {u"text"_s, check.text}});
    const QByteArray line = compactJson({{u"ok"_s, inTheWay(checks).isEmpty()},
                                         {u"account"_s, account},
                                         {u"host"_s, host},
                                         {u"domain"_s, there.state.domain},
                                         {u"homeBytes"_s, there.homeBytes},
                                         {u"homeEntries"_s, there.homeEntries},
                                         {u"databaseBytes"_s, there.databaseBytes},
                                         {u"checks"_s, all}});
    print((session.terminal.out ? escapedJson(line) : line) + '\n');
}

QJsonObject objectOf(const moving::Record &record, const moving::Moved &done)
{
    QJsonObject object = {{u"ok"_s, done.problem.isEmpty()}, {u"account"_s, record.account},
                          {u"host"_s, record.host},          {u"domain"_s, record.domain},
                          {u"decided"_s, done.isDecided},    {u"entries"_s, done.entries},
                          {u"tables"_s, done.tables},        {u"lost"_s, QJsonArray::fromStringList(done.lost)}};
    if (!done.problem.isEmpty())
        object.insert(u"error"_s, done.problem);
    if (!done.isDecided && !done.isBack)
        object.insert(u"unknown"_s, true);
    if (done.rehearsed > 0)
        object.insert(u"rehearsedMilliseconds"_s, done.rehearsed);
    if (done.offline >= 0) {
        QJsonObject parts;
        for (const auto &[part, milliseconds] : done.took)
            parts.insert(part, milliseconds);
        object.insert(u"offlineMilliseconds"_s, done.offline);
        object.insert(u"switchMilliseconds"_s, parts);
    }
    if (!done.address.isEmpty())
        object.insert(u"oldAddressLeadsTo"_s, done.address);
    if (done.seen)
        object.insert(u"seen"_s, done.seen->text);
    return object;
}

QString seconds(qint64 milliseconds)
{
    constexpr double kMsInSecond = 1000;
    return u"%1 s"_s.arg(static_cast<double>(milliseconds) / kMsInSecond, 0, 'f', 1);
}

} // namespace

std::optional<int> tellPlan(const Session &session, const moving::Record &record, const moving::There &there,
                            const QList<Check> &checks, bool isAll)
{
    // A program that asks for the move itself gets one line, at its end.
    if (session.options.json && isAll) {
        showJson(session, record.account, record.host, there, checks);
    } else if (session.options.plain && isAll) {
        for (const Check &check : checks)
            printLine(u"%1\t%2\t%3"_s.arg(check.about, levelText(check.level), escaped(check.text)));
    } else if (!session.options.json && !session.options.plain) {
        showChecks(session.terminal, checks);
    }
    const QStringList stops = inTheWay(checks);
    if (stops.isEmpty())
        return {};
    return fail(kRefused, u"%1 cannot be moved here yet: %2"_s.arg(record.account, stops.join(", "_L1)));
}

QString goOnWith(const moving::Record &record)
{
    return u"corvctl account move %1 %2%3"_s.arg(record.account, record.host, record.isBack ? u" --back"_s : QString());
}

Ended endOf(const moving::Record &record, const moving::Moved &done)
{
    // What is here must not be taken for what a move has left behind.
    if (done.isDecided)
        return {u"%1 is this server's now, but not all is done: %2"_s.arg(record.account, done.problem),
                goOnWith(record) + u" goes on with it"_s};
    // The answer may be what was lost, and not the question.
    if (!done.isBack)
        return {
            u"whether %1 has moved is not known: %2"_s.arg(record.account, done.problem),
            u"%1 asks; where it was not decided %2 takes it back on-line by itself, %3 s after the switch began"_s.arg(
                goOnWith(record), record.host, QString::number(done.timer))};
    const QString what = u"%1 is not moved: %2"_s.arg(record.account, done.problem);
    if (record.isBack)
        return {what, u"%1 still has it; %2 goes on from there"_s.arg(record.host, goOnWith(record))};
    return {what,
            u"%1 still has it; %2 goes on from there, and corvctl account delete %3 takes away what is here"_s.arg(
                record.host, goOnWith(record), record.account)};
}

int tellMoved(const Session &session, const moving::Record &record, const moving::Moved &done)
{
    if (session.options.json) {
        const QByteArray line = compactJson(objectOf(record, done));
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
    }
    if (!done.problem.isEmpty()) {
        const Ended ended = endOf(record, done);
        return fail(done.status, ended.sentence, ended.hint);
    }
    if (!session.options.json) {
        QList<Fact> facts = {{done.isDecided ? u"Moved"_s : u"Rehearsed"_s, text(record.account)},
                             {u"From"_s, text(record.host)},
                             {u"Tables"_s, number(done.tables)}};
        if (done.isDecided && done.entries > 0)
            facts.insert(2, {u"Files"_s, number(done.entries)});
        if (done.rehearsed > 0)
            facts.append({u"Database takes"_s, text(seconds(done.rehearsed))});
        if (done.offline >= 0)
            facts.append({u"Off-line"_s, text(seconds(done.offline))});
        if (!done.address.isEmpty())
            facts.append({u"Old address"_s, text(u"leads to %1 here"_s.arg(done.address))});
        if (done.seen)
            facts.append({u"Site"_s, text(done.seen->text, done.seen->isWell ? Colour::Good : Colour::Bad)});
        printFacts(session, facts);
    }
    // Of all moves of a server the last complaint and what stands below it are told again.
    const bool isOpen = done.isDecided && !record.done.contains(moving::kFinished);
    const QString again = isOpen ? goOnWith(record) + u" tries again what was not put back"_s : QString();
    for (const QString &lost : done.lost)
        (void)fail(done.status, u"not as it was: "_s + lost, &lost == &done.lost.constLast() ? again : QString());
    if (done.isDecided && record.isBack)
        note(u"%1 is still on %2, suspended; corvctl account delete %1 there takes it away"_s.arg(record.account,
                                                                                                  record.host));
    if (!done.isDecided)
        note(u"%1 still has it; %2 moves it"_s.arg(record.host, goOnWith(record)));
    return done.status;
}

} // namespace corv::ctl
