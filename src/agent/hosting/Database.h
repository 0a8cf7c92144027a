#pragma once

#include <QByteArray>
#include <QString>

namespace corv::hosting {

// 24 characters of the URL-safe Base64 alphabet from the system's secure random source.
QString randomPassword();

// The scripts. Names and passwords enter them as psql variables and are quoted by the server, never spliced into SQL.
QByteArray createDatabaseScript(const QString &user, const QString &password);
QByteArray dropDatabaseScript(const QString &user);
QByteArray loginScript(const QString &user, bool allowed);
QByteArray passwordScript(const QString &user, const QString &password);
QByteArray readOnlyScript(const QString &user, bool readOnly);

} // namespace corv::hosting
