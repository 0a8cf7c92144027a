#include "ctl/screen/Escape.h"

#include <QStringList>
#include <QStringView>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Not so: controls, direction overrides and whatever else has no sign of its own, and what ends a line.
bool isHarmless(char32_t character)
{
    return QChar::isPrint(character) && character != U'\u2028' && character != U'\u2029';
}

QString hexadecimal(char32_t character, int digits)
{
    return QString::number(static_cast<quint32>(character), 16).rightJustified(digits, u'0');
}

QString writtenOut(char32_t character)
{
    if (character == U'\n')
        return u"\\n"_s;
    if (character == U'\r')
        return u"\\r"_s;
    if (character == U'\t')
        return u"\\t"_s;
    if (character < 0x100)
        return u"\\x"_s + hexadecimal(character, 2);
    if (character < 0x10000)
        return u"\\u"_s + hexadecimal(character, 4);
    return u"\\U"_s + hexadecimal(character, 8);
}

// The pair, or the single unit, that begins at index i; i is moved behind it.
char32_t nextCharacter(QStringView text, qsizetype &i)
{
    const QChar first = text[i++];
    if (first.isHighSurrogate() && i < text.size() && text[i].isLowSurrogate())
        return QChar::surrogateToUcs4(first, text[i++]);
    return first.unicode();
}

QString escape(QStringView text, bool keepLines)
{
    QString result;
    result.reserve(text.size());
    for (qsizetype i = 0; i < text.size();) {
        const qsizetype begin = i;
        const char32_t character = nextCharacter(text, i);
        if (keepLines && (character == U'\n' || character == U'\t'))
            result += text[begin];
        else if (character == U'\\' && !keepLines)
            result += u"\\\\"_s;
        else if (isHarmless(character))
            result += text.sliced(begin, i - begin);
        else
            result += writtenOut(character);
    }
    return result;
}

} // namespace

QString escaped(const QString &text)
{
    return escape(text, false);
}

QString escapedLines(const QString &text)
{
    return escape(text, true);
}

QString oneSentence(const QString &text)
{
    constexpr auto signs = ".,:;!?"_L1;
    QString sentence;
    for (const QString &line : text.split(u'\n')) {
        const QString words = line.simplified();
        if (words.isEmpty())
            continue;
        if (!sentence.isEmpty())
            sentence += signs.contains(sentence.back()) ? " "_L1 : "; "_L1;
        sentence += words;
    }
    return sentence;
}

QByteArray escapedJson(const QByteArray &json)
{
    const QString text = QString::fromUtf8(json);
    QString result;
    result.reserve(text.size());
    for (qsizetype i = 0; i < text.size();) {
        const qsizetype begin = i;
        const char32_t character = nextCharacter(text, i);
        if (isHarmless(character)) {
            result += QStringView(text).sliced(begin, i - begin);
            continue;
        }
        for (qsizetype unit = begin; unit < i; ++unit)
            result += u"\\u"_s + hexadecimal(text[unit].unicode(), 4);
    }
    return result.toUtf8();
}

} // namespace corv::ctl
