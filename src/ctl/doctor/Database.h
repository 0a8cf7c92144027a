#pragma once

#include "ctl/doctor/Finding.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

namespace corv::ctl {

struct Role
{
    QString name;
    bool mayLogIn = false;
    bool isPlain = false; // it may do nothing but log in
};

struct Database
{
    QString name;
    QString owner;
    bool isOpen = false; // whether every role may connect to it
};

// What a PostgreSQL server has.
struct Databases
{
    int version = 0; // such as 150014 for 15.14
    QList<Role> roles;
    QList<Database> databases;
};

// A version of PostgreSQL and what has it, such as the server or pg_dump.
struct PostgresVersion
{
    QString program;
    int major = 0;
    int minor = 0;
};

// The statement whose answer parseDatabases reads.
extern const QString kDatabasesQuery;

// The one line of JSON that the statement answers with; nothing when it is none.
std::optional<Databases> parseDatabases(const QByteArray &answer);

// The version in a text such as "pg_dump (PostgreSQL) 15.14 (Debian 15.14-0+deb12u1)"; nothing when it holds none.
std::optional<PostgresVersion> parsePostgresVersion(const QByteArray &text);

// The role of that name, or the database; a null pointer where there is none.
const Role *findRole(const Databases &databases, const QString &name);
const Database *findDatabase(const Databases &databases, const QString &name);

// Which of these programs have holes that dumps or restores open.
QList<Finding> checkPostgresVersions(const QList<PostgresVersion> &programs);

// Whether the panel's own role and database are there. A panel user other than the package's has arranged its own.
QList<Finding> checkPanelDatabase(const Databases &databases);

} // namespace corv::ctl
