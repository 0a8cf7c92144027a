#include "ctl/screen/SystemdTime.h"

#include <QDateTime>
#include <QStringList>

#include <ctime>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// The seconds of a zone that is written as numbers, "+03" or "-0330"; nothing for letters.
std::optional<int> offsetOf(const QString &zone)
{
    const bool hasSign = zone.startsWith(u'+') || zone.startsWith(u'-');
    bool isNumber = false;
    const int number = zone.mid(1).leftJustified(4, u'0').toInt(&isNumber);
    if (!hasSign || !isNumber || (zone.size() != 3 && zone.size() != 5))
        return {};
    const int seconds = (number / 100 * 60 + number % 100) * 60;
    return zone.startsWith(u'-') ? -seconds : seconds;
}

// The time that this machine's clocks show so while its zone is called that.
std::optional<qint64> localTime(const QDateTime &written, const QString &zone)
{
    for (const int isSummer : {0, 1}) {
        tm parts = {};
        parts.tm_year = written.date().year() - 1900;
        parts.tm_mon = written.date().month() - 1;
        parts.tm_mday = written.date().day();
        parts.tm_hour = written.time().hour();
        parts.tm_min = written.time().minute();
        parts.tm_sec = written.time().second();
        parts.tm_isdst = isSummer;
        const time_t seconds = std::mktime(&parts);
        if (parts.tm_isdst == isSummer && zone == QString::fromLocal8Bit(parts.tm_zone))
            return seconds;
    }
    return {};
}

} // namespace

std::optional<qint64> systemdTime(const QString &text)
{
    const QStringList words = text.split(u' ');
    if (words.size() != 4)
        return {};
    const QDateTime written = QDateTime::fromString(words[1] + u'T' + words[2] + u'Z', Qt::ISODate);
    if (!written.isValid())
        return {};
    if (words[3] == "UTC"_L1)
        return written.toSecsSinceEpoch();
    if (const std::optional<int> offset = offsetOf(words[3]))
        return written.toSecsSinceEpoch() - *offset;
    return localTime(written, words[3]);
}

} // namespace corv::ctl
