#pragma once

#include <QByteArray>
#include <QMap>

namespace corv::ctl {

// Counts the rows in what "pg_restore --data-only --file=-" writes: for each table what stands between its COPY and the
// line "\.". Names and contents are an account's; what looks like a COPY inside of them is none.
class CopyCounter
{
public:
    // Takes the next piece of the text.
    void take(const QByteArray &piece);

    // The rows of each table, by its name as SQL has it. Whole once all of the text was taken.
    [[nodiscard]] const QMap<QByteArray, qint64> &rows() const
    {
        return m_rows;
    }
    // Whether there was more of anything than is kept: more tables, or longer names, than a database has in earnest.
    [[nodiscard]] bool isTooMuch() const
    {
        return m_isTooMuch;
    }

private:
    enum class In { LineStart, Statement, Name, Text, Comment, Data };

    void takeByte(char byte);
    void endStatement();
    void takeData(char byte);

    In m_in = In::LineStart;
    QByteArray m_statement;
    QByteArray m_line; // the beginning of a line of data
    QByteArray m_table;
    qint64 m_count = 0;
    QMap<QByteArray, qint64> m_rows;
    bool m_isTooMuch = false;
};

// The table of a statement "COPY table (columns) FROM stdin", as it stands there; empty for any other statement and
// where the name is not written as pg_dump writes names.
QByteArray copiedTable(const QByteArray &statement);

} // namespace corv::ctl
