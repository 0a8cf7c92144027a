#include "agent/hosting/Existing.h"

#include "common/Account.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

constexpr qsizetype kQuotedNameLength = 32;

} // namespace

QString checkExisting(const QJsonObject &args, QString *user)
{
    *user = args.value("username"_L1).toString();
    if (validUsername(*user) && isOurs(*user))
        return {};
    return u"no Corvane account named '%1'"_s.arg(user->left(kQuotedNameLength));
}

} // namespace corv::hosting
