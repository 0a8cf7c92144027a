#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QString>

namespace corv::hosting {

// The sizes in bytes that `du -sb` wrote, under the last component of each path; 0 for what is no number. Lines that
// are not a size, a tab and a path are ignored.
QJsonObject parseSizes(const QByteArray &output);

// The member usage of both usage reports: the bytes under each name. Its cost grows linearly with the names.
QJsonObject usageMembers(const QMap<QString, qint64> &bytes);

} // namespace corv::hosting
