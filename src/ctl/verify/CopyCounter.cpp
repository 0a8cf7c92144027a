#include "ctl/verify/CopyCounter.h"

namespace corv::ctl {
namespace {

constexpr qsizetype kLongestStatement = 1'048'576; // 1,600 columns with names of 63 characters of four bytes
constexpr qsizetype kMostTables = 100'000;
constexpr qsizetype kEndOfData = 2; // of "\."

bool isPlain(char byte)
{
    return (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') || byte == '_' || byte == '$' ||
           static_cast<unsigned char>(byte) >= 0x80;
}

// Where the name that begins at a place ends; the place itself where none begins.
qsizetype endOfName(const QByteArray &text, qsizetype at)
{
    if (at >= text.size() || text[at] != '"') {
        while (at < text.size() && isPlain(text[at]))
            ++at;
        return at;
    }
    for (qsizetype i = at + 1; i < text.size(); ++i) {
        if (text[i] != '"')
            continue;
        if (i + 1 < text.size() && text[i + 1] == '"')
            ++i; // a quote in the name
        else
            return i + 1;
    }
    return at;
}

} // namespace

QByteArray copiedTable(const QByteArray &statement)
{
    static const QByteArray begin = "COPY ";
    if (!statement.startsWith(begin) || !statement.endsWith(" FROM stdin"))
        return {};
    const qsizetype schema = endOfName(statement, begin.size());
    if (schema == begin.size() || schema >= statement.size() || statement[schema] != '.')
        return {};
    const qsizetype table = endOfName(statement, schema + 1);
    if (table == schema + 1 || table >= statement.size() || statement[table] != ' ')
        return {};
    return statement.mid(begin.size(), table - begin.size());
}

void CopyCounter::take(const QByteArray &piece)
{
    for (const char byte : piece) {
        if (m_in == In::Data)
            takeData(byte);
        else
            takeByte(byte);
    }
}

void CopyCounter::takeByte(char byte)
{
    if (m_in == In::Comment) {
        if (byte == '\n')
            m_in = In::LineStart;
        return;
    }
    if (m_in == In::LineStart && byte == '\n')
        return;
    // Between statements there are comments, and words for psql that begin with a backslash.
    if (m_in == In::LineStart && (byte == '-' || byte == '\\')) {
        m_in = In::Comment;
        return;
    }
    if (m_in == In::LineStart)
        m_in = In::Statement;
    if (m_in == In::Statement && byte == ';') {
        endStatement();
        return;
    }

    if (m_in == In::Name)
        m_in = byte == '"' ? In::Statement : In::Name;
    else if (m_in == In::Text)
        m_in = byte == '\'' ? In::Statement : In::Text;
    else if (byte == '"')
        m_in = In::Name;
    else if (byte == '\'')
        m_in = In::Text;
    if (m_statement.size() < kLongestStatement)
        m_statement.append(byte);
    else
        m_isTooMuch = m_isTooMuch || m_statement.startsWith("COPY ");
}

void CopyCounter::endStatement()
{
    const bool isCopy = m_statement.startsWith("COPY ") && m_statement.endsWith(" FROM stdin");
    m_table = copiedTable(m_statement);
    m_statement.clear();
    m_in = In::LineStart;
    if (!isCopy)
        return;
    m_in = In::Data;
    m_line.clear();
    m_isTooMuch = m_isTooMuch || m_table.isEmpty() || m_rows.size() >= kMostTables;
    m_count = -1; // the rest of the statement's own line
}

void CopyCounter::takeData(char byte)
{
    if (byte != '\n') {
        if (m_line.size() <= kEndOfData)
            m_line.append(byte);
        return;
    }
    if (m_line != "\\.") {
        ++m_count;
    } else {
        m_in = In::LineStart;
        if (!m_isTooMuch)
            m_rows.insert(m_table, m_count);
    }
    m_line.clear();
}

} // namespace corv::ctl
