#include "ctl/screen/Table.h"

#include "ctl/Session.h"
#include "ctl/screen/Escape.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kGap = 2;
// No column is shortened below this.
constexpr int kNarrowest = 8;
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

// Takes columns away from the widest until the table fits, or none can be narrower.
void fit(QList<int> &widths, int columns)
{
    const auto total = [&] {
        int sum = kGap * static_cast<int>(widths.size() - 1);
        for (const int width : widths)
            sum += width;
        return sum;
    };
    for (int over = total() - columns; over > 0; over = total() - columns) {
        const auto widest = std::max_element(widths.begin(), widths.end());
        if (*widest <= kNarrowest)
            return;
        int second = kNarrowest;
        for (const int width : widths) {
            if (width < *widest)
                second = std::max(second, width);
        }
        // Down to the next widest, or one by one where several share the place.
        *widest -= std::clamp(*widest - second, 1, over);
    }
}

// A column with numbers stands at the right.
QString lineOf(const Terminal &terminal, const Row &row, const QList<int> &widths, const QList<bool> &numbers)
{
    QString line;
    for (qsizetype i = 0; i < row.size(); ++i) {
        const Cell &cell = row[i];
        const QString shown = terminal.columns > 0 ? shortened(cell.shown, widths[i]) : cell.shown;
        const bool last = i + 1 == row.size() && !numbers[i];
        const QString in = last ? shown : padded(shown, widths[i], numbers[i]);
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
    QList<int> widths;
    QList<bool> numbers;
    Row head;
    for (qsizetype i = 0; i < titles.size(); ++i) {
        int width = displayWidth(titles[i]);
        bool number = false;
        for (const Row &row : rows) {
            width = std::max(width, widthOf(row[i].shown));
            number = number || row[i].number;
        }
        widths.append(width);
        numbers.append(number);
        head.append({titles[i], {}, Colour::Strong, number});
    }
    if (terminal.columns > 0)
        fit(widths, terminal.columns);

    QString result = lineOf(terminal, head, widths, numbers);
    for (const Row &row : rows)
        result += lineOf(terminal, row, widths, numbers);
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
        const QString shown =
            session.terminal.columns > 0 ? shortened(fact.value.shown, std::max(room, kNarrowest)) : fact.value.shown;
        result += padded(fact.name, width + kGap, false) + coloured(session.terminal, fact.value.colour, shown) + u'\n';
    }
    print(result.toUtf8());
}

} // namespace corv::ctl
