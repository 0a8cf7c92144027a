#include "common/Json.h"

#include <QJsonDocument>

namespace corv {
namespace {

// A mark anywhere else in a text is kept as it is.
QByteArray withEscapedMarks(QByteArray json)
{
    return json.replace("\"\xEF\xBB\xBF", "\"\\ufeff");
}

} // namespace

QJsonObject parseObject(QByteArray json)
{
    return QJsonDocument::fromJson(withEscapedMarks(std::move(json))).object();
}

QByteArray compactJson(const QJsonObject &object)
{
    return withEscapedMarks(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace corv
