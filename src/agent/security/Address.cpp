#include "agent/security/Address.h"

#include <QHostAddress>
#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::security {
namespace {

// The text goes on to other tools as it was given, and 010.0.0.1, 127.1, 0x7f000001 or ::1%eth0 mean to the framework,
// to a firewall and to the kernel different things, or nothing. What is let through has one meaning everywhere.
bool hasPlainForm(const QString &address)
{
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(
        uR"((?:[0-9A-Fa-f]*:)*(?:(?:0|[1-9][0-9]{0,2})\.){3}(?:0|[1-9][0-9]{0,2})|(?:[0-9A-Fa-f]*:)+[0-9A-Fa-f]*)"_s));
    return pattern.match(address).hasMatch();
}

// A length with a leading zero is octal to some tools: 010 would open a range far wider than the one that was meant.
bool hasPlainLength(const QString &length)
{
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(u"0|[1-9][0-9]{0,2}"_s));
    return pattern.match(length).hasMatch() || (!length.contains(u':') && hasPlainForm(length));
}

} // namespace

bool isAddress(const QString &text)
{
    return hasPlainForm(text) && !QHostAddress(text).isNull();
}

bool isAddressOrRange(const QString &text)
{
    const qsizetype slash = text.indexOf(u'/');
    if (slash < 0) {
        const QString whole = text + (text.contains(u':') ? u"/128"_s : u"/32"_s);
        return hasPlainForm(text) && !QHostAddress::parseSubnet(whole).first.isNull();
    }
    return hasPlainForm(text.first(slash)) && hasPlainLength(text.sliced(slash + 1)) &&
           !QHostAddress::parseSubnet(text).first.isNull();
}

} // namespace corv::security
