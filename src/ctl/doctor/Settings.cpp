#include "ctl/doctor/Settings.h"

#include "ctl/Meant.h"

#include <QRegularExpression>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

const QStringList kKeys = {u"agent/allowed_user"_s,  u"agent/socket"_s,       u"agent/socket_group"_s,
                           u"backup/destination"_s,  u"backup/keep_days"_s,   u"backup/require_mount"_s,
                           u"health/services"_s,     u"notify/command"_s,     u"notify/mail"_s,
                           u"offsite/append_only"_s, u"offsite/repository"_s, u"offsite/retention"_s};

constexpr int kMostLetters = 2; // that a misspelt name differs in
constexpr qsizetype kLongestName = 100;
constexpr qsizetype kMountPointField = 1;

// The key that a misspelt one stands for: the same one in another section, or one that is written almost so.
QString meantKey(const QString &key)
{
    const QString name = key.section(u'/', 1);
    for (const QString &known : kKeys) {
        if (known.section(u'/', 1) == name)
            return known;
    }
    return nearestName(key, kKeys);
}

// How the file is changed so that the key is the known one. A name that is not plain is left to the administrator, and
// so is one in a section that is another's.
QString rename(const QString &key, const QString &known, const QString &path)
{
    static const QRegularExpression plain(QRegularExpression::anchoredPattern(u"[A-Za-z0-9_-]+/[A-Za-z0-9_-]+"_s));
    const QString section = key.section(u'/', 0, 0);
    const bool isSections = key.section(u'/', 1) == known.section(u'/', 1);
    const bool isMisspelt = distance(section, known.section(u'/', 0, 0)) <= kMostLetters;
    if (!plain.match(key).hasMatch() || (isSections && !isMisspelt))
        return u"editor "_s + shellWord(path);
    const QString change =
        isSections ? u"s/^[[:space:]]*[[]%1]/[%2]/"_s.arg(section, known.section(u'/', 0, 0))
                   : u"s/^[[:space:]]*%1[[:space:]]*=/%2=/"_s.arg(key.section(u'/', 1), known.section(u'/', 1));
    return u"sed -i %1 %2 && systemctl restart corv-agent"_s.arg(shellWord(change), shellWord(path));
}

// A path of /etc/fstab or of the table of mounts, where blanks and their like are written as octal numbers.
QString unescaped(const QByteArray &field)
{
    static const QRegularExpression octal(uR"(\\([0-7]{3}))"_s);
    QString text = QString::fromUtf8(field);
    for (QRegularExpressionMatch match = octal.match(text); match.hasMatch();
         match = octal.match(text, match.capturedStart() + 1))
        text.replace(match.capturedStart(), match.capturedLength(), QChar(match.captured(1).toInt(nullptr, 8)));
    return text;
}

QStringList mountPointsIn(const QByteArray &table)
{
    QStringList points;
    for (const QByteArray &line : table.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() > kMountPointField && !fields[0].startsWith('#'))
            points.append(unescaped(fields[kMountPointField]));
    }
    return points;
}

} // namespace

QString nearestName(const QString &name, const QStringList &names)
{
    if (name.size() > kLongestName)
        return {};
    QString nearest;
    int least = std::min<int>(kMostLetters, static_cast<int>(name.size()) / 3) + 1;
    for (const QString &other : names) {
        if (std::abs(other.size() - name.size()) >= least)
            continue;
        if (const int letters = distance(name, other); letters < least) {
            least = letters;
            nearest = other;
        }
    }
    return nearest;
}

QList<Finding> checkSettings(const QStringList &keys, const QString &path)
{
    QList<Finding> findings;
    for (const QString &key : keys) {
        if (kKeys.contains(key))
            continue;
        const QString known = meantKey(key);
        if (known.isEmpty()) {
            findings.append(
                {Level::Note, u"the settings have a key %1, which nothing reads"_s.arg(key), u"man corvane.ini"_s});
        } else {
            findings.append({Level::Fault,
                             u"the settings have a key %1, which nothing reads; %2 is meant"_s.arg(key, known),
                             rename(key, known, path)});
        }
    }
    return findings;
}

QString plannedMount(const QString &folder, const QByteArray &fstab, const QList<QByteArray> &units)
{
    static const QRegularExpression where(u"^\\s*Where=(/.*?)\\s*$"_s, QRegularExpression::MultilineOption);
    QStringList points = mountPointsIn(fstab);
    for (const QByteArray &unit : units)
        points.append(where.match(QString::fromUtf8(unit)).captured(1));
    QString nearest;
    for (const QString &point : points) {
        const bool holds = point.size() > 1 && (folder == point || folder.startsWith(point + u'/'));
        if (holds && point.size() > nearest.size())
            nearest = point;
    }
    return nearest;
}

bool isMounted(const QString &point, const QByteArray &mounts)
{
    return mountPointsIn(mounts).contains(point);
}

QList<Finding> checkDestination(const QString &destination, const QString &point, bool isMounted)
{
    if (point.isEmpty() || isMounted)
        return {};
    return {{Level::Fault,
             u"backups go to %1, but what should be mounted at %2 is not: they would fill the disk below it"_s.arg(
                 destination, point),
             u"mount "_s + shellWord(point)}};
}

} // namespace corv::ctl
