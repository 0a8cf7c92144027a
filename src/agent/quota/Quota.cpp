#include "agent/quota/Quota.h"

#include "agent/hosting/Hosting.h"
#include "agent/hosting/Usage.h"
#include "agent/quota/Home.h"
#include "common/Account.h"
#include "common/Packages.h"

#include <QHash>
#include <QMap>

#include <algorithm>
#include <cmath>

using namespace Qt::Literals::StringLiterals;

namespace corv::quota {
namespace {

constexpr qint64 kMaxMb = 104'857'600; // 100 TiB

// A limit in MiB. What is no whole number reads as 0, but a number past the range stays outside of it whatever its
// size: 0 lifts a limit, and a reader of integers takes 1e300 for its default.
qint64 limitIn(const QJsonValue &mb)
{
    const double number = mb.toDouble();
    if (number <= kMaxMb && number != std::trunc(number))
        return 0;
    return static_cast<qint64>(std::clamp(std::ceil(number), -1.0, static_cast<double>(kMaxMb + 1)));
}

// The names of the accounts by uid. Of several users with one uid the first counts, as in a look-up by uid.
QHash<uid_t, QString> accountNames()
{
    QHash<uid_t, QString> names;
    for (const hosting::User &user : hosting::users()) {
        if (!names.contains(user.uid))
            names.insert(user.uid, hosting::hasMarker(user.comment) ? user.name : QString());
    }
    return names;
}

} // namespace

Mount homeMount()
{
    QByteArray output;
    (void)hosting::run(u"findmnt"_s, {u"-n"_s, u"-o"_s, u"TARGET,FSTYPE"_s, u"-T"_s, u"/home"_s}, {}, &output);
    return parseMount(output);
}

QString unsupportedReason(const QString &type)
{
    if (type == "xfs"_L1)
        return u"XFS needs the uquota mount option, which on the root filesystem means a reboot; not automated yet"_s;
    return u"hard quotas are automated for ext4 only so far"_s;
}

bool enabled()
{
    QByteArray output;
    // Its exit status says something else.
    (void)hosting::run(u"quotaon"_s, {u"-p"_s, u"-u"_s, homeMount().point}, {}, &output);
    return QString::fromUtf8(output).contains("is on"_L1);
}

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
    if (!enabled())
        return fail(u"hard quotas are off"_s);

    const qint64 mb = limitIn(args.value("mb"_L1));
    if (mb < 0 || mb > kMaxMb)
        return fail(u"limit out of range"_s);

    // In blocks of 1 KiB. The soft limit, nine tenths of the hard one, has the tools warn in time.
    const QString soft = QString::number(mb * 9'216 / 10);
    const QString hard = QString::number(mb * 1'024);
    return result(hosting::run(u"setquota"_s, {u"-u"_s, user, soft, hard, u"0"_s, u"0"_s, homeMount().point}));
}

Reply usage(const QJsonObject &)
{
    QByteArray output;
    if (const QString error = hosting::run(u"repquota"_s, {u"-u"_s, u"-n"_s, homeMount().point}, {}, &output);
        !error.isEmpty())
        return fail(error);

    const QHash<uid_t, QString> names = accountNames();
    QMap<QString, qint64> bytes;
    for (const Usage &line : parseUsage(output)) {
        const QString name = names.value(line.uid);
        if (!name.isEmpty())
            bytes.insert(name, line.bytes);
    }
    return {{u"ok"_s, true}, {u"usage"_s, hosting::usageMembers(bytes)}};
}

} // namespace corv::quota
