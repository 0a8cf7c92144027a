#pragma once

#include "common/Account.h"
#include "common/BackupConfig.h"
#include "ctl/doctor/Accounts.h"

#include <QByteArray>
#include <QHash>
#include <QString>

#include <optional>

namespace corv::ctl {

// Reads of this server what the lists of accounts show. Most of it is told to root alone.

// How much each account uses, in bytes, and its limit where it has one, by its name; and where that is from: "quotas",
// or "backup" for the size of each home's archive in the newest backup; empty where neither tells. Measures nothing.
struct Used
{
    QHash<QString, qint64> bytes;
    QHash<QString, qint64> limits;
    QString source;
};
Used readUsed(const backup::Config &config);

// The same from what "repquota -u -n" prints, names holding the accounts by their user ids.
Used parseQuotas(const QByteArray &output, const QHash<uid_t, QString> &names);

// What an account is for its visitors and its user: "on-line", "suspended", "half suspended", "not enabled", "no site".
QString stateOf(const AccountParts &account);

// When a user last logged in by SSH or at a terminal, in seconds since 1970: 0 for never, nothing where this server
// keeps no record. On Debian 13, which has no /var/log/lastlog any more, what SSH's own lines in the journal say, as
// far back as that is kept.
std::optional<qint64> lastLogin(const hosting::User &user);

// How large a database is, in bytes, and whether it is read-only.
struct DatabaseSize
{
    qint64 bytes = 0;
    bool isReadOnly = false;
};
std::optional<DatabaseSize> readDatabaseSize(const QString &account);

// Until when a certificate is valid, in seconds since 1970; nothing where that cannot be told.
std::optional<qint64> certificateEnd(const QString &path);

// The same from what "openssl x509 -enddate" prints.
std::optional<qint64> parseEnd(const QByteArray &output);

} // namespace corv::ctl
