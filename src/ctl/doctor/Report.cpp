#include "ctl/doctor/Report.h"

#include "common/Json.h"
#include "ctl/Session.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Wrap.h"

#include <QJsonArray>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kIndent = 8; // the marks and the blanks behind them
constexpr int kNameColumns = 12;

QString nameOf(Level level)
{
    return level == Level::Fault ? u"fault"_s : u"note"_s;
}

QString plural(qsizetype number, const QString &one)
{
    return u"%1 %2%3"_s.arg(QString::number(number), one, number == 1 ? QString() : u"s"_s);
}

QJsonObject objectOf(const Check &check)
{
    QJsonArray findings;
    for (const Finding &finding : check.findings) {
        findings.append(QJsonObject{
            {u"level"_s, nameOf(finding.level)}, {u"problem"_s, finding.problem}, {u"mend"_s, finding.mend}});
    }
    return {{u"check"_s, check.name}, {u"seen"_s, check.seen}, {u"findings"_s, findings}};
}

Check checkIn(const QJsonObject &object)
{
    Check check = {object.value("check"_L1).toString(), object.value("seen"_L1).toString(), {}};
    for (const auto &value : object.value("findings"_L1).toArray()) {
        const QJsonObject finding = value.toObject();
        check.findings.append({finding.value("level"_L1).toString() == nameOf(Level::Note) ? Level::Note : Level::Fault,
                               finding.value("problem"_L1).toString(), finding.value("mend"_L1).toString()});
    }
    return check;
}

void printFinding(const Terminal &terminal, const Finding &finding)
{
    const bool isFault = finding.level == Level::Fault;
    QString mark = coloured(terminal, isFault ? Colour::Bad : Colour::Warning,
                            nameOf(finding.level).toUpper().leftJustified(kIndent));
    for (const QString &line : wrapped(escaped(finding.problem), terminal.columns - kIndent)) {
        printLine(mark + line);
        mark = QString(kIndent, u' ');
    }
    // In one line, however long, so that it can be copied.
    printLine(mark + u"# "_s + escaped(finding.mend));
}

void printForReader(const Session &session, const Report &report)
{
    const Terminal &terminal = session.terminal;
    for (const Check &check : report.checks) {
        const bool isWell = check.findings.isEmpty();
        QString mark =
            isWell ? coloured(terminal, Colour::Good, u"ok"_s) + QString(kIndent - 2, u' ') : QString(kIndent, u' ');
        mark += escaped(check.name).leftJustified(kNameColumns);
        for (const QString &line : wrapped(escaped(check.seen), terminal.columns - kIndent - kNameColumns)) {
            printLine(mark + line);
            mark = QString(kIndent + kNameColumns, u' ');
        }
        for (const Finding &finding : check.findings)
            printFinding(terminal, finding);
    }
    printLine({});
    printLine(u"%1: %2, %3"_s.arg(escaped(report.host), plural(report.count(Level::Fault), u"fault"_s),
                                  plural(report.count(Level::Note), u"note"_s)));
}

} // namespace

qsizetype Report::count(Level level) const
{
    qsizetype number = 0;
    for (const Check &check : checks) {
        number += std::count_if(check.findings.cbegin(), check.findings.cend(),
                                [level](const Finding &finding) { return finding.level == level; });
    }
    return number;
}

QByteArray reportLine(const Report &report)
{
    QJsonArray checks;
    for (const Check &check : report.checks)
        checks.append(objectOf(check));
    return compactJson({{u"ok"_s, report.count(Level::Fault) == 0},
                        {u"host"_s, report.host},
                        {u"faults"_s, report.count(Level::Fault)},
                        {u"notes"_s, report.count(Level::Note)},
                        {u"checks"_s, checks}});
}

std::optional<Report> parseReport(const QByteArray &line)
{
    const QJsonObject object = parseObject(line);
    if (!object.value("checks"_L1).isArray())
        return {};
    Report report = {object.value("host"_L1).toString(), {}};
    for (const auto &check : object.value("checks"_L1).toArray())
        report.checks.append(checkIn(check.toObject()));
    return report;
}

void printReport(const Session &session, const Report &report)
{
    if (session.options.json) {
        const QByteArray line = reportLine(report);
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return;
    }
    if (!session.options.plain) {
        printForReader(session, report);
        return;
    }
    for (const Check &check : report.checks) {
        for (const Finding &finding : check.findings) {
            printLine(u"%1\t%2\t%3\t%4"_s.arg(nameOf(finding.level), escaped(check.name), escaped(finding.problem),
                                              escaped(finding.mend)));
        }
    }
}

} // namespace corv::ctl
