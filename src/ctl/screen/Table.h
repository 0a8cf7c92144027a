#pragma once

#include "ctl/screen/Terminal.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

namespace corv::ctl {

struct Session;

// What stands in one place of a table: for people and, with --plain, for programs. Both are escaped when they are made.
struct Cell
{
    QString shown;
    QString plain;
    Colour colour = Colour::None;
    bool number = false; // stands at the right
    bool whole = false;  // as a fact it is never shortened
};

Cell text(const QString &text, Colour colour = Colour::None);
Cell whole(const QString &text); // for what is told here only, or to be copied
Cell number(qint64 number);
Cell bytes(qint64 bytes);           // for programs: as a number
Cell time(qint64 secondsSince1970); // likewise
Cell span(qint64 seconds);          // likewise
Cell nothing();                     // for what is not known or not there
Cell yesNo(bool value, Colour whenTrue = Colour::None, Colour whenFalse = Colour::None);

// The time, in seconds since 1970, that a member of an object holds; nothing() where it holds none.
Cell timeIn(const QJsonObject &object, QLatin1StringView member);

using Row = QList<Cell>;

// Writes a table on standard output: aligned, under the column's titles, and with its widest columns shortened until it
// fits the terminal; or with --plain one line for each row, its cells parted by tabs, without titles.
void printTable(const Session &session, const QStringList &titles, const QList<Row> &rows);

// What is known of one thing, each fact in a line of its own; with --plain its name, a tab and its value.
struct Fact
{
    QString name;
    Cell value;
};
void printFacts(const Session &session, const QList<Fact> &facts);

// The table's lines for a width; 0 for any.
QString tableText(const Terminal &terminal, const QStringList &titles, const QList<Row> &rows);

} // namespace corv::ctl
