#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

// What an account has that neither archive of it holds, as it is written down beside them.

// A setting of PostgreSQL's that is kept for an account.
struct KeptSetting
{
    enum class Scope {
        Database,      // for everybody in the account's database
        Role,          // for its role everywhere
        RoleInDatabase // for its role there
    };

    Scope scope = Scope::Database;
    QString name;
    QString value; // as PostgreSQL keeps it

    bool operator==(const KeptSetting &) const = default;
};

// A job that at runs once.
struct KeptJob
{
    qint64 time = 0; // seconds since 1970, whole minutes
    char queue = 'a';
    QByteArray script; // as at keeps it, less its own first lines

    bool operator==(const KeptJob &) const = default;
};

struct KeptDatabase
{
    QString encoding;
    QString collate;
    QString ctype;

    bool operator==(const KeptDatabase &) const = default;
};

struct AccountState
{
    QString username;
    QString domain;
    qint64 taken = 0; // seconds since 1970
    qint64 uid = 0;
    QString shell;
    bool isSuspended = false;
    bool lingers = false;        // whether its services run without a login
    std::optional<QString> role; // the hash of the role's password, empty for none; nothing where it was not to be had
    QString shadow;              // the second field of its line in shadow
    std::optional<qint64> limitMb; // its disk limit, 0 for none; nothing where quotas are off
    std::optional<KeptDatabase> database;
    QList<KeptSetting> settings;
    QByteArray crontab; // empty for none
    QList<KeptJob> jobs;
    QStringList php;     // the versions that its pools are of
    QStringList leftOut; // what there was too much of to be written down whole: "crontab", "at jobs", "settings"

    bool operator==(const AccountState &) const = default;
};

// The longest line that is written or read, in bytes; and the most of a crontab, of all jobs of at together, of a
// setting, and of all settings together as they are written: an account can make up any of them.
constexpr qint64 kLongestStateLine = 4'194'304;
constexpr qint64 kLargestCrontab = 1'048'576;
constexpr qint64 kLargestJobs = 1'048'576;
constexpr qsizetype kMostJobs = 100;
constexpr qsizetype kLongestSetting = 8192;
constexpr qsizetype kMostSettings = 200;
constexpr qint64 kLargestSettings = 1'048'576;

// A state as one line of JSON with its line feed, and the state of such a line; nothing for what is no such line, or
// has a member of another type or form than is written. Members that are not known are passed over.
QByteArray stateLine(const AccountState &state);
std::optional<AccountState> parseStateLine(const QByteArray &line);

// The states in a file of root's alone, which nobody else may write to. Lines that are none are counted in *bad.
// Returns why the file cannot be read in problem; a file that is not there is a problem too.
QList<AccountState> readStates(const QString &path, int *bad, QString *problem);

// The state of one account in such a file; nothing where it has none.
std::optional<AccountState> readState(const QString &path, const QString &account);

// A fresh state, and what is missing in it from an earlier one of the same account: what a deletion that has begun has
// taken away, for which isGoing stands, and what PostgreSQL could not be asked for.
AccountState completed(AccountState fresh, const AccountState &earlier, bool isGoing);

// A crontab less the lines that crontab itself puts before it.
QByteArray bareCrontab(const QByteArray &crontab);

// A job of at from the name and the text of its file; nothing for one that runs, and for what is no job.
std::optional<KeptJob> parseJob(const QByteArray &fileName, const QByteArray &text);

// Whether texts are of the form of a role's password hash, of a password hash in shadow (without the mark of a lock),
// or of a shell's path. What is not is never put back.
bool isRoleHash(const QString &text);
bool isShadowHash(const QString &text);
bool isShellPath(const QString &text);

} // namespace corv::ctl
