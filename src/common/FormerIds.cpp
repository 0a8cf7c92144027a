#include "common/FormerIds.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

constexpr id_t kFirstAccountId = 1000; // below are the system's own, whatever /etc/login.defs says
constexpr id_t kNobody = 65'534;
constexpr id_t kLastAccountId = 4'294'967'000; // above are ids that mean "none"

QByteArray line(const QJsonObject &record)
{
    return QJsonDocument(record).toJson(QJsonDocument::Compact) + '\n';
}

} // namespace

bool isAccountId(id_t id)
{
    return id >= kFirstAccountId && id <= kLastAccountId && id != kNobody && id != kNobody + 1;
}

FormerIds parseFormerIds(const QStringList &files)
{
    static const QRegularExpression pattern(
        QRegularExpression::anchoredPattern(u"corv-gone-([0-9]{1,10})\\.(user|group)"_s));
    FormerIds ids;
    for (const QString &file : files) {
        const QRegularExpressionMatch match = pattern.match(file);
        bool isNumber = false;
        const id_t id = match.captured(1).toUInt(&isNumber);
        if (!isNumber || !isAccountId(id))
            continue;
        if (match.captured(2) == "user"_L1)
            ids.users.insert(id);
        else
            ids.groups.insert(id);
    }
    return ids;
}

FormerIds formerIds()
{
    return parseFormerIds(
        QDir(QString::fromLatin1(kRecordFolder)).entryList({u"corv-gone-*"_s}, QDir::Files, QDir::Unsorted));
}

QString formerName(id_t id)
{
    return u"corv-gone-%1"_s.arg(id);
}

QByteArray formerUserRecord(uid_t user)
{
    // Not the group of its own: userdel leaves a group alone that is another user's first one.
    return line({{u"userName"_s, formerName(user)},
                 {u"uid"_s, static_cast<qint64>(user)},
                 {u"gid"_s, static_cast<qint64>(kNobody)},
                 {u"realName"_s, u"Deleted account"_s},
                 {u"homeDirectory"_s, u"/nonexistent"_s},
                 {u"shell"_s, u"/usr/sbin/nologin"_s},
                 {u"disposition"_s, u"reserved"_s},
                 {u"locked"_s, true}});
}

QByteArray formerGroupRecord(gid_t group)
{
    return line({{u"groupName"_s, formerName(group)},
                 {u"gid"_s, static_cast<qint64>(group)},
                 {u"disposition"_s, u"reserved"_s}});
}

} // namespace corv::hosting
