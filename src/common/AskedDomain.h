#pragma once

#include <QString>

namespace corv::hosting {

// What has to be asked for, so that creation stores this domain: the domain, and where that begins with "www." another
// one before it, since one is always taken off (see normalDomain in common/Account.h).
QString askedDomain(const QString &stored);

} // namespace corv::hosting
