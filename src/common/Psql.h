#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

namespace corv::hosting {

// What a session of ours is told when it begins: to find the system's functions and operators, and no others. One that
// a tenant left in a schema on the superuser's path, with a bare name of ours or for types that suit better, would run
// with the superuser's rights. It goes before what a role or a database has been given.
inline constexpr auto kSystemNamesOnly = "-csearch_path=pg_catalog";

// The variables that psql is started with, whoever runs it: these names only, five seconds at most for a lock, and
// settings of PostgreSQL beside that, which go before, such as "-cstatement_timeout=0".
QMap<QString, QString> psqlVariables(const QString &settings = {});

// The arguments with which runuser has psql run quietly as this user, in psqlVariables(); psql's own can follow.
QStringList psqlAs(const QString &user);

// What has psql end at the first error.
QStringList psqlUpToAnError();

// psqlAs("postgres") for a shell, with its variables: the beginning of a command.
QString psqlInShell();

// Runs a script as the database superuser, up to its first error. Returns the runner's message, which carries the
// database's own; empty on success.
QString psql(const QByteArray &script);

} // namespace corv::hosting
