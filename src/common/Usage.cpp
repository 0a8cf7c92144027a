#include "common/Usage.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {

QJsonObject parseSizes(const QByteArray &output)
{
    QMap<QString, qint64> bytes;
    for (const QByteArray &line : output.split('\n')) {
        const QList<QByteArray> fields = line.split('\t');
        if (fields.size() != 2)
            continue;
        const QString name = QString::fromLocal8Bit(fields[1]).section(u'/', -1, -1, QString::SectionSkipEmpty);
        bytes.insert(name, fields[0].toLongLong());
    }
    return usageMembers(bytes);
}

QJsonObject usageMembers(const QMap<QString, qint64> &bytes)
{
    // In their order: an object that is given its members in any other moves all that it has for each of them.
    QJsonObject members;
    for (auto entry = bytes.cbegin(); entry != bytes.cend(); ++entry)
        members.insert(entry.key(), entry.value());
    return members;
}

} // namespace corv::hosting
