#include "ctl/metrics/AgentLines.h"

#include "common/Json.h"
#include "ctl/Described.h"

#include <QRegularExpression>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Beyond it a number of JSON is not exact any more.
constexpr qint64 kMost = 9'007'199'254'740'992;

bool isCommand(const QString &name)
{
    const auto all = described();
    return std::any_of(all.begin(), all.end(),
                       [&name](const Described &command) { return name == QLatin1StringView(command.name); });
}

QJsonObject objectOf(const QMap<QString, qint64> &numbers)
{
    QJsonObject object;
    for (auto entry = numbers.cbegin(); entry != numbers.cend(); ++entry)
        object.insert(entry.key(), entry.value());
    return object;
}

// A whole number of at least 0; nothing for anything else.
std::optional<qint64> numberIn(const QJsonValue &value)
{
    const qint64 number = value.toInteger(-1);
    return number >= 0 && number <= kMost ? std::optional(number) : std::nullopt;
}

std::optional<QMap<QString, qint64>> numbersIn(const QJsonValue &value)
{
    if (!value.isObject())
        return {};
    const QJsonObject object = value.toObject();
    QMap<QString, qint64> numbers;
    for (auto entry = object.constBegin(); entry != object.constEnd(); ++entry) {
        const std::optional<qint64> number = numberIn(entry.value());
        if (!number || !isCommand(entry.key()))
            return {};
        numbers.insert(entry.key(), *number);
    }
    return numbers;
}

} // namespace

std::optional<JournalEntry> parseEntry(const QByteArray &line)
{
    const QJsonObject object = parseObject(line);
    JournalEntry entry = {object.value("__CURSOR"_L1).toString(), {}};
    if (!isCursor(entry.cursor))
        return {};
    const auto is = [&object](QLatin1StringView field, const QString &text) {
        return object.value(field).toString() == text; // a field that an entry has twice is a list, and no text
    };
    if (is("_SYSTEMD_UNIT"_L1, kAgentUnit) && is("_UID"_L1, u"0"_s) && is("_EXE"_L1, kAgentProgram))
        entry.message = object.value("MESSAGE"_L1).toString();
    return entry;
}

bool isCursor(const QString &text)
{
    static const QRegularExpression form(
        QRegularExpression::anchoredPattern(u"s=[0-9a-f]{32}(;[ibmtx]=[0-9a-f]{1,32}){5}"_s));
    return form.match(text).hasMatch();
}

qint64 timeOfCursor(const QString &cursor)
{
    constexpr int kHexadecimal = 16;
    for (const QString &part : cursor.split(u';')) {
        if (part.startsWith("t="_L1))
            return part.sliced(2).toLongLong(nullptr, kHexadecimal);
    }
    return 0;
}

void count(const QString &message, AgentCounts *counts)
{
    static const QRegularExpression ran(
        QRegularExpression::anchoredPattern(u"agent: uid [0-9]+ ran ([A-Za-z0-9.]+) -> (ok|failed)"_s));
    static const QRegularExpression unknown(
        QRegularExpression::anchoredPattern(u"agent: uid [0-9]+ sent unknown command '.*'"_s));
    static const QRegularExpression refused(
        QRegularExpression::anchoredPattern(u"agent: refused connection from uid -?[0-9]+"_s));
    if (const QRegularExpressionMatch match = ran.match(message); match.hasMatch()) {
        if (isCommand(match.captured(1)))
            ++(match.captured(2) == "ok"_L1 ? counts->ok : counts->failed)[match.captured(1)];
    } else if (unknown.match(message).hasMatch()) {
        ++counts->unknown;
    } else if (refused.match(message).hasMatch()) {
        ++counts->refused;
    }
}

QJsonObject objectOf(const AgentCounts &counts)
{
    return {{u"ok"_s, objectOf(counts.ok)},
            {u"failed"_s, objectOf(counts.failed)},
            {u"unknown"_s, counts.unknown},
            {u"refused"_s, counts.refused}};
}

std::optional<AgentCounts> countsIn(const QJsonObject &object)
{
    const auto ok = numbersIn(object.value("ok"_L1));
    const auto failed = numbersIn(object.value("failed"_L1));
    const auto unknown = numberIn(object.value("unknown"_L1));
    const auto refused = numberIn(object.value("refused"_L1));
    if (!ok || !failed || !unknown || !refused)
        return {};
    return AgentCounts{*ok, *failed, *unknown, *refused};
}

} // namespace corv::ctl
