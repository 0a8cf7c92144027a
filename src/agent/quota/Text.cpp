#include "agent/quota/Text.h"

#include <QStringList>

using namespace Qt::Literals::StringLiterals;

namespace corv::quota {
namespace {

constexpr qint64 kBlockBytes = 1024; // the tools count in blocks of this size whatever the file system's is
constexpr qsizetype kLeastUsageFields = 3;

// The fields of a line of /etc/fstab, as far as the editing goes.
constexpr qsizetype kMountPointField = 1;
constexpr qsizetype kOptionsField = 3;
constexpr qsizetype kLeastFstabFields = 4;

const auto kQuotaOptions = "usrjquota=aquota.user,jqfmt=vfsv1"_ba;

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

std::optional<QByteArray> addQuotaOptions(const QByteArray &fstab, const QString &mountPoint)
{
    const QByteArray wanted = mountPoint.toUtf8();
    QList<QByteArray> lines = fstab.split('\n');
    for (QByteArray &line : lines) {
        // Makes single blanks of white space of any kind and length, so that fields can be told apart by them.
        const QByteArray text = line.simplified();
        if (text.isEmpty() || text.startsWith('#'))
            continue;

        QList<QByteArray> fields = text.split(' ');
        if (fields.size() < kLeastFstabFields || fields[kMountPointField] != wanted)
            continue;
        if (fields[kOptionsField].contains("usrjquota="))
            return fstab;

        fields[kOptionsField] += ',' + kQuotaOptions;
        line = fields.join('\t');
        return lines.join('\n');
    }
    return {};
}

} // namespace corv::quota
