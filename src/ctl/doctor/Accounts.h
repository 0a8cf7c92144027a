#pragma once

#include "ctl/doctor/Database.h"
#include "ctl/doctor/Finding.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

// What the server has of one account, but for its role and its database.
struct AccountParts
{
    QString name;
    QString domain;                 // as the user database has it
    bool expired = false;           // whether its user is kept from logging in, as a suspension does
    std::optional<QByteArray> site; // its site file's text, none where there is no such file
    bool siteEnabled = false;
    QStringList pools;       // the PHP versions in which it has a pool
    QStringList parkedPools; // those in which it has a pool that a suspension put aside
    QStringList archives;    // the paths of the archives of its last deletion that came to make both
    QStringList openPools;   // those whose pool, parked or not, lets in more than the agent's own (see letsMoreIn)
    QStringList unreadPools; // those whose FPM runs without listening where its pool says
};

// What carries an account's name outside the user database.
struct NamedParts
{
    QStringList sites;          // the file names of sites, enabled ones among them
    QStringList pools;          // the paths of pool files, parked ones among them
    QStringList ownerlessHomes; // the paths of folders in /home that no user owns
};

// What is wrong with an account, where php is the PHP version in force (empty for none) and databases is what
// PostgreSQL has (none where it could not be asked).
QList<Finding> checkAccount(const AccountParts &account, const QString &php, const std::optional<Databases> &databases);

// What is left over of accounts that are none any more, or that were never finished. users holds the names of all users
// of the system, accounts those of the accounts.
QList<Finding> checkLeftovers(const NamedParts &parts, const std::optional<Databases> &databases,
                              const QStringList &users, const QStringList &accounts);

// Whether the text of an account's pool file lacks one of the lines that keep its PHP to its user, its home and the web
// server.
bool letsMoreIn(const QByteArray &pool, const QString &account);

// The account that a file "corv-NAME.conf" or "corv-NAME.conf.suspended" belongs to, empty for another file.
QString accountOfFile(const QString &fileName);

} // namespace corv::ctl
