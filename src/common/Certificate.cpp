#include "common/Certificate.h"

#include <QDateTime>
#include <QTimeZone>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

// Tags of the encoding.
constexpr uchar kSequence = 0x30;
constexpr uchar kObjectName = 0x06;
constexpr uchar kOctets = 0x04;
constexpr uchar kShortTime = 0x17; // a year of two digits
constexpr uchar kLongTime = 0x18;
constexpr uchar kVersion = 0xa0;
constexpr uchar kExtensions = 0xa3;
constexpr uchar kDnsName = 0x82;

const auto kAlternativeNames = "\x55\x1d\x11"_ba;

// One element: its tag and what it holds. Views into the certificate.
struct Element
{
    uchar tag = 0;
    QByteArrayView content;
};

// Takes the element at the beginning of rest off it; nothing when that is no whole one.
std::optional<Element> take(QByteArrayView *rest)
{
    if (rest->size() < 2)
        return std::nullopt;
    const auto byteAt = [&](qsizetype place) { return static_cast<uchar>(rest->at(place)); };
    qsizetype size = byteAt(1);
    qsizetype begin = 2;
    if (size >= 0x80) {
        const qsizetype count = size & 0x7f;
        if (count < 1 || count > 3 || rest->size() < begin + count)
            return std::nullopt;
        size = 0;
        for (qsizetype i = 0; i < count; ++i)
            size = size << 8 | byteAt(begin + i);
        begin += count;
    }
    if (rest->size() - begin < size)
        return std::nullopt;
    const Element element{byteAt(0), rest->sliced(begin, size)};
    *rest = rest->sliced(begin + size);
    return element;
}

// As take, for an element that must have that tag.
std::optional<QByteArrayView> take(QByteArrayView *rest, uchar tag)
{
    const std::optional<Element> element = take(rest);
    return element && element->tag == tag ? std::optional(element->content) : std::nullopt;
}

// As in "20280101123456Z".
constexpr qsizetype kTimeSize = 15;

bool isDigit(char character)
{
    return character >= '0' && character <= '9';
}

std::optional<qint64> takeTime(QByteArrayView *rest)
{
    const std::optional<Element> element = take(rest);
    if (!element || (element->tag != kShortTime && element->tag != kLongTime))
        return std::nullopt;
    QByteArray text = element->content.toByteArray();
    // Those of two digits are of 1950 to 2049.
    if (element->tag == kShortTime)
        text.prepend(text.left(1) >= "5" ? "19" : "20");
    if (text.size() != kTimeSize || !text.endsWith('Z') || !std::all_of(text.begin(), text.end() - 1, isDigit))
        return std::nullopt;
    const QDate day(text.mid(0, 4).toInt(), text.mid(4, 2).toInt(), text.mid(6, 2).toInt());
    const QTime time(text.mid(8, 2).toInt(), text.mid(10, 2).toInt(), text.mid(12, 2).toInt());
    if (!day.isValid() || !time.isValid())
        return std::nullopt;
    return QDateTime(day, time, QTimeZone::utc()).toSecsSinceEpoch();
}

// Whether a browser could ask for such a name, "*.example.org" included. A certificate can hold anything in its place,
// as "shop.example<NUL>.evil.example", which no one may take for the name before the NUL.
bool isDnsName(QByteArrayView name)
{
    return !name.isEmpty() && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || isDigit(c) || c == '-' || c == '.' || c == '_' ||
               c == '*';
    });
}

QStringList namesIn(QByteArrayView extensions)
{
    QByteArrayView list = take(&extensions, kSequence).value_or(QByteArrayView());
    while (std::optional<QByteArrayView> extension = take(&list, kSequence)) {
        const std::optional<QByteArrayView> kind = take(&*extension, kObjectName);
        std::optional<Element> value = take(&*extension);
        // Whether it is critical stands before its value, where it does.
        if (value && value->tag != kOctets)
            value = take(&*extension);
        if (!kind || *kind != kAlternativeNames || !value)
            continue;
        QByteArrayView octets = value->content;
        QByteArrayView names = take(&octets, kSequence).value_or(QByteArrayView());
        QStringList found;
        while (const std::optional<Element> name = take(&names)) {
            if (name->tag == kDnsName && isDnsName(name->content))
                found.append(QString::fromLatin1(name->content).toLower());
        }
        return found;
    }
    return {};
}

std::optional<Certificate> parseDer(QByteArrayView bytes)
{
    std::optional<QByteArrayView> whole = take(&bytes, kSequence);
    std::optional<QByteArrayView> body = whole ? take(&*whole, kSequence) : std::nullopt;
    if (!body)
        return std::nullopt;
    // The version, where it stands there, and the serial number; then the algorithm.
    const std::optional<Element> first = take(&*body);
    if (first && first->tag == kVersion)
        (void)take(&*body);
    (void)take(&*body);
    (void)take(&*body); // who issued it
    std::optional<QByteArrayView> validity = take(&*body, kSequence);
    if (!validity)
        return std::nullopt;
    const std::optional<qint64> begins = takeTime(&*validity);
    const std::optional<qint64> ends = takeTime(&*validity);
    if (!begins || !ends)
        return std::nullopt;

    Certificate certificate{*begins, *ends, {}};
    while (const std::optional<Element> element = take(&*body)) {
        if (element->tag == kExtensions)
            certificate.names = namesIn(element->content);
    }
    return certificate;
}

} // namespace

std::optional<Certificate> parseCertificate(const QByteArray &pem)
{
    static const auto begins = "-----BEGIN CERTIFICATE-----"_ba;
    static const auto ends = "-----END CERTIFICATE-----"_ba;
    const qsizetype begin = pem.indexOf(begins);
    const qsizetype end = begin < 0 ? -1 : pem.indexOf(ends, begin);
    if (end < 0)
        return std::nullopt;
    const QByteArray der = QByteArray::fromBase64(pem.mid(begin + begins.size(), end - begin - begins.size()));
    return parseDer(der);
}

} // namespace corv
