#pragma once

#include "ctl/doctor/Finding.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

struct Role
{
    QString name;
    bool mayLogIn = false;
    bool isPlain = false; // it may do nothing but log in
    bool isBare = false;  // nothing belongs to it, it has been granted nothing, and it is in no other
};

struct Database
{
    QString name;
    QString owner;
    bool isOpen = false;     // whether every role may connect to it
    bool isTemplate = false; // which keeps it from being dropped
    bool isClosed = false;   // whether nobody may connect to it, which keeps it from being dumped
    bool isInvalid = false;  // what a drop that was cut off leaves
    QList<int> holders = {}; // the processes of sessions that have kept a whole table to themselves for ten seconds
};

// What a PostgreSQL server has.
struct Databases
{
    int version = 0; // such as 150014 for 15.14
    QList<Role> roles;
    QList<Database> databases;   // but for the server's own templates
    QStringList openShared = {}; // of the server's own databases, those that every role may connect to
    QString hbaFile = {};        // the path of pg_hba.conf
    int looseRules = 0;          // how many of its rules let every role try every database
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

// Whether the databases are left with an older PostgreSQL (the major number of their server) than the newest of which a
// server is installed.
QList<Finding> checkPostgresServers(int major, const QList<int> &installed);

// What keeps a database from being dumped, renamed or dropped, and which its owner can set: a sentence and the
// statement that lifts it, for each.
struct Obstacle
{
    QString what;
    QString statement;
};
QList<Obstacle> obstaclesOf(const Database &database);

// What keeps an account from being deleted: the same of its database, or that it, or the role, is missing.
QList<Obstacle> obstaclesOfAccount(const QString &account, const Databases &databases);

// Whether every role may connect to what all share: the server's own databases, and by pg_hba.conf to any.
QList<Finding> checkSharedDatabases(const Databases &databases);

// Whether the panel's own role and database are there. A panel user other than the package's has arranged its own.
QList<Finding> checkPanelDatabase(const Databases &databases);

} // namespace corv::ctl
