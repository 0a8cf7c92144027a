#pragma once

#include <QJsonObject>
#include <QString>

namespace corv::hosting {

// The gate of every handler of an existing account. Stores the argument username through user, and returns an empty
// text when it is a valid name of a user of this system with the account marker, else the message to fail with.
QString checkExisting(const QJsonObject &args, QString *user);

} // namespace corv::hosting
