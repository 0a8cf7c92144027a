#pragma once

#include <QString>

namespace corv::security {

// Whether text is one IPv4 address of four decimal parts or one IPv6 address, without blanks, prefix length or scope.
bool isAddress(const QString &text);

// Whether text is an address as above, or a range: an address, a slash and a prefix length (for IPv4 also a dotted
// netmask). Host bits may be set.
bool isAddressOrRange(const QString &text);

} // namespace corv::security
