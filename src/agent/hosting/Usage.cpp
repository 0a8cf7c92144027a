#include "common/Usage.h"
#include "agent/hosting/Hosting.h"
#include "common/Account.h"
#include "common/Quotas.h"
#include "common/Run.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

// As the disk quotas have it.
Reply quotaUsage()
{
    QMap<QString, qint64> bytes;
    if (const QString error = quota::usage(&bytes); !error.isEmpty())
        return fail(error);
    return {{u"ok"_s, true}, {u"usage"_s, usageMembers(bytes)}};
}

} // namespace

Reply usage(const QJsonObject &)
{
    if (quota::enabled())
        return quotaUsage();

    QStringList homes;
    for (const User &user : users()) {
        if (hasMarker(user.comment))
            homes.append(user.home);
    }
    QByteArray sizes;
    if (!homes.isEmpty())
        (void)runInHomes(u"du"_s, QStringList{u"-sb"_s} + homes, &sizes); // a missing home must not hide the others
    return {{u"ok"_s, true}, {u"usage"_s, parseSizes(sizes)}};
}

} // namespace corv::hosting
