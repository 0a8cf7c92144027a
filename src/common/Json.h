#pragma once

#include <QByteArray>
#include <QJsonObject>

namespace corv {

// JSON objects as bytes. A byte-order mark at the beginning of a text belongs to that text: the framework's parser
// (Qt 6.4) takes it away unless it is written as an escape.

// The object that json holds; an empty one when json is not valid, or no object.
QJsonObject parseObject(QByteArray json);

// The object without indentation and without a line feed, in UTF-8.
QByteArray compactJson(const QJsonObject &object);

} // namespace corv
