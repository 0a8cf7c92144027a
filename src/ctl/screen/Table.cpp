#include "ctl/screen/Table.h"

#include "ctl/Session.h"
#include "ctl/screen/Escape.h"

#include <algorithm>
#include <functional>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kGap = 2;
// Columns of words are shortened to the first, then to the second, and all to the last.
constexpr int kNarrow = 8;
constexpr int kNarrower = 5;
constexpr int kNarrowest = 2;
// What is left of a title over numbers that are narrower.
constexpr int kTitle = 3;
// No terminal is wider; what a string of megabytes takes beyond it need not be known.
constexpr qsizetype kWidest = 2000;

int widthOf(const QString &text)
{
    return displayWidth(text.left(kWidest));
}

QString padded(const QString &text, int width, bool right)
{
    const QString blanks(std::max(0, width - widthOf(text)), u' ');
    return right ? blanks + text : text + blanks;
}

// A column before it is fitted: how wide it is, and what its widest value takes without the title.
struct Column
{
    int width = 0;
    int value = 0;
    bool isNumber = false;
};

// Takes from the widest column that is wider than its floor until the table fits, or all are at theirs.
void narrow(QList<Column> &columns, int room, const std::function<int(const Column &)> &floorOf)
{
    const auto total = [&] {
        int sum = kGap * static_cast<int>(columns.size() - 1);
        for (const Column &column : columns)
            sum += column.width;
        return sum;
    };
    for (int over = total() - room; over > 0; over = total() - room) {
        Column *widest = nullptr;
        for (Column &column : columns) {
            if (column.width > floorOf(column) && (!widest || column.width > widest->width))
                widest = &column;
        }
        if (!widest)
            return;
        int second = floorOf(*widest);
        for (const Column &column : columns) {
            if (column.width > floorOf(column) && column.width < widest->width)
                second = std::max(second, column.width);
        }
        // Down to the next widest, or one by one where several share the place.
        widest->width -= std::clamp(widest->width - second, 1, over);
    }
}

// Words are shortened first, then the titles over numbers; half a number says something else than the number.
void fit(QList<Column> &columns, int room)
{
    narrow(columns, room, [](const Column &column) { return column.isNumber ? column.width : kNarrow; });
    narrow(columns, room,
           [](const Column &column) { return column.isNumber ? std::max(column.value, kTitle) : kNarrow; });
    narrow(columns, room,
           [](const Column &column) { return column.isNumber ? std::max(column.value, kTitle) : kNarrower; });
    narrow(columns, room, [](const Column &) { return kNarrowest; });
}

// A column with numbers stands at the right.
QString lineOf(const Terminal &terminal, const Row &row, const QList<Column> &columns)
{
    QString line;
    for (qsizetype i = 0; i < row.size(); ++i) {
        const Cell &cell = row[i];
        const QString shown = terminal.columns > 0 ? shortened(cell.shown, columns[i].width) : cell.shown;
        const bool last = i + 1 == row.size() && !columns[i].isNumber;
        const QString in = last ? shown : padded(shown, columns[i].width, columns[i].isNumber);
        line += coloured(terminal, cell.colour, in);
        if (i + 1 < row.size())
            line += QString(kGap, u' ');
    }
    return line + u'\n';
}

QString plainText(const QList<Row> &rows)
{
    QString result;
    for (const Row &row : rows) {
        QStringList cells;
        for (const Cell &cell : row)
            cells.append(cell.plain);
        result += cells.join(u'\t') + u'\n';
    }
    return result;
}

} // namespace

Cell text(const QString &text, Colour colour)
{
    const QString safe = escaped(text);
    return {safe, safe, colour, false};
}

Cell whole(const QString &text)
{
    const QString safe = escaped(text);
    return {safe, safe, Colour::None, false, true};
}

Cell number(qint64 number)
{
    const QString digits = QString::number(number);
    return {digits, digits, Colour::None, true};
}

Cell bytes(qint64 bytes)
{
    return {humanBytes(bytes), QString::number(bytes), Colour::None, true};
}

Cell time(qint64 secondsSince1970)
{
    return {humanTime(secondsSince1970), QString::number(secondsSince1970), Colour::None, false};
}

Cell span(qint64 seconds)
{
    return {humanSeconds(seconds), QString::number(seconds), Colour::None, true};
}

Cell nothing()
{
    return {u"-"_s, {}, Colour::None, false};
}

Cell timeIn(const QJsonObject &object, QLatin1StringView member)
{
    const QJsonValue value = object.value(member);
    return value.isDouble() ? time(value.toInteger()) : nothing();
}

Cell yesNo(bool value, Colour whenTrue, Colour whenFalse)
{
    return text(value ? u"yes"_s : u"no"_s, value ? whenTrue : whenFalse);
}

QString tableText(const Terminal &terminal, const QStringList &titles, const QList<Row> &rows)
{
    QList<Column> columns;
    Row head;
    for (qsizetype i = 0; i < titles.size(); ++i) {
        Column column;
        for (const Row &row : rows) {
            column.value = std::max(column.value, widthOf(row[i].shown));
            column.isNumber = column.isNumber || row[i].number;
        }
        column.width = std::max(displayWidth(titles[i]), column.value);
        columns.append(column);
        head.append({titles[i], {}, Colour::Strong, column.isNumber});
    }
    if (terminal.columns > 0)
        fit(columns, terminal.columns);

    QString result = lineOf(terminal, head, columns);
    for (const Row &row : rows)
        result += lineOf(terminal, row, columns);
    return result;
}

void printTable(const Session &session, const QStringList &titles, const QList<Row> &rows)
{
    const QString whole = session.options.plain ? plainText(rows) : tableText(session.terminal, titles, rows);
    print(whole.toUtf8());
}

void printFacts(const Session &session, const QList<Fact> &facts)
{
    int width = 0;
    for (const Fact &fact : facts)
        width = std::max(width, displayWidth(fact.name));

    QString result;
    for (const Fact &fact : facts) {
        if (session.options.plain) {
            result += fact.name + u'\t' + fact.value.plain + u'\n';
            continue;
        }
        const int room = session.terminal.columns - width - kGap;
        const bool mayBeShort = session.terminal.columns > 0 && !fact.value.whole;
        const QString shown = mayBeShort ? shortened(fact.value.shown, std::max(room, kNarrow)) : fact.value.shown;
        result += padded(fact.name, width + kGap, false) + coloured(session.terminal, fact.value.colour, shown) + u'\n';
    }
    print(result.toUtf8());
}

} // namespace corv::ctl
