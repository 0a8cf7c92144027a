#pragma once

#include "ctl/move/There.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace corv::ctl::moving {

// What this server has that a move to it has to do with.
struct Here
{
    QStringList inTheWay;  // what else has the account's name, as sentences
    QString domainHolder;  // what answers to its domain, such as "the site shop"; empty for nothing
    QString uidHolder;     // the user who has its number; empty for nobody
    int postgres = 0;      // the major version; 0 where it was not told
    KeptDatabase database; // what databases of new accounts are like
    QString php;           // the version that new accounts get; empty for none
    bool hasQuotas = false;
    bool hasRsync = false;
    bool hasHttps = false;   // whether accounts have HTTPS here
    bool hasShell = false;   // whether the account's shell is here
    qint64 homeFree = 0;     // bytes that are left where homes are
    qint64 homeInodes = -1;  // likewise inodes; -1 where the file system does not count them
    qint64 databaseFree = 0; // bytes that are left where PostgreSQL keeps its data
    bool isOneDisk = false;  // whether those two are the same
};

// Reads it, as root. there: the account that is to come.
Here lookHere(const There &there);

// Why an account that is here already is not the one to come, which has that domain there: empty where it has it here,
// too.
QString otherDomain(const QString &account, const QString &there);

// One thing that a move depends on.
struct Check
{
    enum class Level {
        Well,
        Told,    // worth knowing beforehand
        InTheWay // the move is not begun
    };

    QString about; // such as "Domain"
    QString text;
    Level level = Level::Well;
};

// Holds one server against the other, in the order in which a person would ask.
QList<Check> checksOf(const There &there, const Here &here);

} // namespace corv::ctl::moving
