#include "agent/quota/Fstab.h"

#include <QList>

using namespace Qt::Literals::StringLiterals;

namespace corv::quota {
namespace {

// The fields of a line of /etc/fstab, as far as the editing goes.
constexpr qsizetype kMountPointField = 1;
constexpr qsizetype kOptionsField = 3;
constexpr qsizetype kLeastFstabFields = 4;

const auto kQuotaOptions = "usrjquota=aquota.user,jqfmt=vfsv1"_ba;

} // namespace

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
