#include "common/RequiredMount.h"

#include "common/Config.h"

#include <QDir>
#include <QRegularExpression>
#include <QSettings>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::backup {
namespace {

// A path in the table of mounts, where blanks and their like are written as octal numbers.
QString unescaped(const QByteArray &field)
{
    QByteArray path;
    for (qsizetype i = 0; i < field.size(); ++i) {
        bool isOctal = false;
        const int code = field[i] == '\\' ? field.mid(i + 1, 3).toInt(&isOctal, 8) : 0;
        path += isOctal ? static_cast<char>(code) : field[i];
        i += isOctal ? 3 : 0;
    }
    return QString::fromUtf8(path);
}

// What is mounted last at a point covers what was before.
QByteArray typeMountedAt(const QString &point, const QByteArray &mounts)
{
    constexpr qsizetype kPoint = 1;
    constexpr qsizetype kType = 2;
    QByteArray type;
    for (const QByteArray &line : mounts.split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() > kType && unescaped(fields[kPoint]) == point)
            type = fields[kType];
    }
    return type;
}

} // namespace

QString requiredMount(const QSettings &settings)
{
    const QString path = textSetting(settings, u"backup/require_mount"_s);
    return path.isEmpty() ? QString() : QDir::cleanPath(path);
}

bool isMountPath(const QString &path)
{
    return path.startsWith(u'/') && path.size() > 1 && path == QDir::cleanPath(path) &&
           std::none_of(path.cbegin(), path.cend(), [](QChar c) { return c.unicode() < u' ' || c.unicode() == 0x7f; });
}

QString mountProblem(const QString &point, const QString &destination, const QByteArray &mounts)
{
    if (point.isEmpty())
        return {};
    if (!isMountPath(point))
        return u"the setting require_mount, '%1', is no absolute path of a mount point"_s.arg(point);
    if (destination != point && !destination.startsWith(point + u'/'))
        return u"the setting require_mount says %1, but backups go to %2, which is not below it"_s.arg(point,
                                                                                                       destination);
    const QByteArray type = typeMountedAt(point, mounts);
    if (type.isEmpty() || type == "autofs")
        return u"%1 is not mounted, so no backup is made: it would fill the disk below"_s.arg(point);
    return {};
}

QByteArray mountDropIn(const QString &point)
{
    QString path = point;
    path.replace(u'\\', u"\\\\"_s).replace(u'"', u"\\\""_s).replace(u'%', u"%%"_s);
    return u"# From require_mount in /etc/corvane/corvane.ini.\n[Unit]\nRequiresMountsFor=\"%1\"\n"_s.arg(path)
        .toUtf8();
}

} // namespace corv::backup
