#include "common/AskedDomain.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {

QString askedDomain(const QString &stored)
{
    return stored.startsWith("www."_L1) ? u"www."_s + stored : stored;
}

} // namespace corv::hosting
