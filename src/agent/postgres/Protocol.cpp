#include "agent/postgres/Protocol.h"

#include <QtEndian>

#include <algorithm>

namespace corv::postgres {
namespace {

constexpr qint32 kVersion = 3 << 16;
constexpr qsizetype kLengthSize = 4; // a message's length counts itself

QByteArray number(qint32 value)
{
    QByteArray bytes(kLengthSize, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

qint32 numberAt(const QByteArray &bytes, qsizetype at)
{
    return at + kLengthSize <= bytes.size() ? qFromBigEndian<qint32>(bytes.constData() + at) : -1;
}

QByteArray withLength(const QByteArray &body)
{
    return number(static_cast<qint32>(body.size() + kLengthSize)) + body;
}

} // namespace

qsizetype MessageScanner::headSize() const
{
    return m_isTyped ? kLengthSize + 1 : kLengthSize;
}

// Reads the head that is complete. False when it is none.
bool MessageScanner::begin()
{
    m_type = m_isTyped ? m_head.front() : '\0';
    const qint32 length = numberAt(m_head, m_head.size() - kLengthSize);
    m_head.clear();
    m_body.clear();
    m_isTyped = true;
    m_isInBody = true;
    if (length < kLengthSize)
        return false;
    m_rest = length - kLengthSize;
    return true;
}

bool MessageScanner::take(const char *data, qsizetype size, const Seen &seen)
{
    const char *const end = data + size;
    while (!m_isBroken && data < end) {
        if (!m_isInBody) {
            const qsizetype taken = std::min<qsizetype>(headSize() - m_head.size(), end - data);
            m_head.append(data, taken);
            data += taken;
            if (m_head.size() < headSize())
                break;
            m_isBroken = !begin();
        } else {
            const qsizetype taken = std::min<qsizetype>(m_rest, end - data);
            m_body.append(data, std::min(taken, kKeptBytes - m_body.size()));
            data += taken;
            m_rest -= taken;
        }
        if (m_isInBody && m_rest == 0 && !m_isBroken) {
            m_isInBody = false;
            seen(m_type, m_body);
        }
    }
    return !m_isBroken;
}

QByteArray startMessage(const QByteArray &role, const QByteArray &database, const QByteArray &options)
{
    QByteArray body = number(kVersion);
    for (const QByteArray &text : {QByteArray("user"), role, QByteArray("database"), database, QByteArray("options"),
                                   options, QByteArray("application_name"), QByteArray("corv-agent")})
        body += text + '\0';
    return withLength(body + '\0');
}

QByteArray queryMessage(const QByteArray &statements)
{
    return 'Q' + withLength(statements + '\0');
}

QByteArray goodbyeMessage()
{
    return 'X' + withLength({});
}

bool letsIn(const QByteArray &body)
{
    return numberAt(body, 0) == 0;
}

QByteArray errorField(const QByteArray &body, char field)
{
    for (qsizetype at = 0; at < body.size() && body[at] != '\0';) {
        const qsizetype end = body.indexOf('\0', at);
        const qsizetype length = (end < 0 ? body.size() : end) - at - 1;
        if (body[at] == field)
            return body.mid(at + 1, length);
        at += length + 2;
    }
    return {};
}

QByteArray firstColumn(const QByteArray &body)
{
    constexpr qsizetype kCountSize = 2; // of columns, before the first
    const qint32 length = numberAt(body, kCountSize);
    const QByteArray value = body.mid(kCountSize + kLengthSize, std::max(length, 0));
    return length >= 0 && value.size() == length ? value : QByteArray();
}

} // namespace corv::postgres
