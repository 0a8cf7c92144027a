#pragma once

#include <QJsonObject>
#include <QString>

namespace corv {

// What every handler answers: ok (always there), error (when ok is false), and the command's own members.
using Reply = QJsonObject;

// The failure reply: ok false and error, a short English sentence that tells the user what to do.
inline Reply fail(const QString &message)
{
    return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), message}};
}

// The reply of a handler that has nothing to add: ok true where error is empty, else the failure reply with it.
inline Reply result(const QString &error)
{
    return error.isEmpty() ? Reply{{QStringLiteral("ok"), true}} : fail(error);
}

} // namespace corv
