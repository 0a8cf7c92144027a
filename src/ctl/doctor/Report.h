#pragma once

#include "ctl/doctor/Examination.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace corv::ctl {

struct Session;

// The outcome of an examination.
struct Report
{
    QString host;
    QList<Check> checks;

    [[nodiscard]] qsizetype count(Level level) const;
};

// The report as one line of JSON without a line feed: ok (whether there is no fault), host, faults, notes, and checks,
// each with its name, what was seen, and findings with level, problem and mend.
QByteArray reportLine(const Report &report);

// The report that such a line holds; nothing when it is none.
std::optional<Report> parseReport(const QByteArray &line);

// Writes the report on standard output: a line for each check and its findings below it; or, with --plain, a line for
// each finding (level, check, problem, command); or, with --json, its line.
void printReport(const Session &session, const Report &report);

} // namespace corv::ctl
