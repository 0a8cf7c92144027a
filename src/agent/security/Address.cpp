#include "agent/security/Address.h"

#include <QRegularExpression>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::security {
namespace {

constexpr int kIpv4Bits = 32;
constexpr int kIpv6Bits = 128;

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

// The family of an address in its plain form, AF_UNSPEC when it is none.
int familyOf(const QString &address)
{
    const QByteArray text = address.toLatin1();
    in6_addr bytes = {}; // takes either
    for (const int family : {AF_INET, AF_INET6}) {
        if (::inet_pton(family, text.constData(), &bytes) == 1)
            return family;
    }
    return AF_UNSPEC;
}

// Whether a dotted mask has nothing but ones before nothing but zeros.
bool isNetmask(const QString &mask)
{
    in_addr bits = {};
    if (::inet_pton(AF_INET, mask.toLatin1().constData(), &bits) != 1)
        return false;
    const quint32 zeros = ~ntohl(bits.s_addr);
    return (zeros & (zeros + 1)) == 0;
}

} // namespace

bool isAddress(const QString &text)
{
    return hasPlainForm(text) && familyOf(text) != AF_UNSPEC;
}

bool isAddressOrRange(const QString &text)
{
    const qsizetype slash = text.indexOf(u'/');
    if (slash < 0)
        return isAddress(text);
    const QString address = text.first(slash);
    const QString length = text.sliced(slash + 1);
    if (!isAddress(address) || !hasPlainLength(length))
        return false;
    const bool isIpv4 = familyOf(address) == AF_INET;
    if (length.contains(u'.'))
        return isIpv4 && isNetmask(length);
    return length.toInt() <= (isIpv4 ? kIpv4Bits : kIpv6Bits);
}

} // namespace corv::security
