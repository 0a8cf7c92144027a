#include "agent/quota/Quota.h"

#include "agent/hosting/Existing.h"
#include "common/Packages.h"
#include "common/Quotas.h"

#include <algorithm>
#include <cmath>

using namespace Qt::Literals::StringLiterals;

namespace corv::quota {
namespace {

// A limit in MiB. What is no whole number reads as 0, but a number past the range stays outside of it whatever its
// size: 0 lifts a limit, and a reader of integers takes 1e300 for its default.
qint64 limitIn(const QJsonValue &mb)
{
    const double number = mb.toDouble();
    if (number <= kMaxMb && number != std::trunc(number))
        return 0;
    return static_cast<qint64>(std::clamp(std::ceil(number), -1.0, static_cast<double>(kMaxMb + 1)));
}

} // namespace

Reply status(const QJsonObject &)
{
    const Mount home = homeMount();
    const bool supported = home.type == kSupportedType;
    Reply reply = {{u"ok"_s, true},
                   {u"mount"_s, home.point},
                   {u"fsType"_s, home.type},
                   {u"supported"_s, supported},
                   {u"enabled"_s, installed(kQuotaPackage) && enabled()}};
    if (!supported)
        reply.insert("reason"_L1, unsupportedReason(home.type));
    return reply;
}

Reply set(const QJsonObject &args)
{
    QString user;
    if (const QString problem = hosting::checkExisting(args, &user); !problem.isEmpty())
        return fail(problem);
    return result(setLimit(user, limitIn(args.value("mb"_L1))));
}

} // namespace corv::quota
