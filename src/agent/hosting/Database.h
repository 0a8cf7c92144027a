#pragma once

#include <QByteArray>
#include <QString>

namespace corv::hosting {

// Runs a script as the database superuser, up to its first error. Returns the runner's message, which carries the
// database's own; empty on success.
QString psql(const QByteArray &script);

// The scripts. Names and passwords enter them as psql variables and are quoted by the server, never spliced into SQL.
QByteArray createDatabaseScript(const QString &user, const QString &password);
QByteArray dropDatabaseScript(const QString &user);
QByteArray loginScript(const QString &user, bool allowed);
QByteArray passwordScript(const QString &user, const QString &password);
QByteArray readOnlyScript(const QString &user, bool readOnly);

} // namespace corv::hosting
