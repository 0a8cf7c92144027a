#include "common/Quotas.h"

#include "common/Account.h"
#include "common/Run.h"

#include <QHash>
#include <QStringList>

using namespace Qt::Literals::StringLiterals;

namespace corv::quota {
namespace {

constexpr qint64 kBlockBytes = 1024; // the tools count in blocks of this size whatever the file system's is
constexpr qsizetype kLeastUsageFields = 3;

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

Mount parseMount(const QByteArray &output)
{
    const QStringList fields = QString::fromUtf8(output).simplified().split(u' ');
    return {fields.value(0), fields.value(1)};
}

QList<Usage> parseUsage(const QByteArray &output)
{
    QList<Usage> all;
    for (const QByteArray &line : output.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() < kLeastUsageFields || !fields[0].startsWith('#'))
            continue;

        bool isNumber = false;
        const uid_t uid = fields[0].mid(1).toUInt(&isNumber);
        qint64 bytes = 0;
        if (isNumber && !qMulOverflow(fields[2].toLongLong(), kBlockBytes, &bytes))
            all.append({uid, bytes});
    }
    return all;
}

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

QString setLimit(const QString &user, qint64 mb)
{
    if (!enabled())
        return u"hard quotas are off"_s;
    if (mb < 0 || mb > kMaxMb)
        return u"limit out of range"_s;

    // In blocks of 1 KiB. The soft limit, nine tenths of the hard one, has the tools warn in time.
    const QString soft = QString::number(mb * 9'216 / 10);
    const QString hard = QString::number(mb * 1'024);
    return hosting::run(u"setquota"_s, {u"-u"_s, user, soft, hard, u"0"_s, u"0"_s, homeMount().point});
}

QString usage(QMap<QString, qint64> *bytes)
{
    QByteArray output;
    if (const QString error = hosting::run(u"repquota"_s, {u"-u"_s, u"-n"_s, homeMount().point}, {}, &output);
        !error.isEmpty())
        return error;

    const QHash<uid_t, QString> names = accountNames();
    for (const Usage &line : parseUsage(output)) {
        const QString name = names.value(line.uid);
        if (!name.isEmpty())
            bytes->insert(name, line.bytes);
    }
    return {};
}

} // namespace corv::quota
