#pragma once

#include "ctl/restore/State.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// Puts back on an account what was written down of it. Each function returns what could not be put back, as sentences;
// none where all is. Secrets go to the tools by their standard input. Call them as root, for an account that is there.

// Whose word it is that a setting of PostgreSQL was there. What is stored of one takes force with a superuser's rights
// at each login, and can be the path of a program: what another server says is set with the account's own rights alone.
enum class SaidBy { Us, AnotherServer };

// The hash of the role's password, and the settings of role and database. Where the hash cannot be had again, as one
// that goes with the old name, *isLost says so: the role then keeps the password that it was made with.
QStringList applyRole(const AccountState &state, const QString &account, SaidBy by, bool *isLost);

// The same in one go, for whoever has no time. False where anything of it cannot be had: then applyRole tells what.
bool applyRoleAtOnce(const AccountState &state, const QString &account, SaidBy by);

// The login: the hash in shadow, the shell.
QStringList applyLogin(const AccountState &state, const QString &account);

// The jobs of at, which its user has to be able to log in for. What was to run by now, or is there already, is not made
// again. lateJobs tells of the former; empty for none.
QStringList applyJobs(const AccountState &state, const QString &account, qint64 now);
QStringList lateJobs(const AccountState &state, qint64 now);

// Services without a login, which begin at once.
QStringList applyLinger(const AccountState &state, const QString &account);

// The crontab.
QStringList applyCrontab(const AccountState &state, const QString &account);

// What is told of the database as it is now that was otherwise: its encoding and its locale.
QStringList databaseDifferences(const AccountState &state, const QString &account);

// The parts of it, for tests. Whether a job that is there is what at has made of one that was kept.
bool isSameJob(const KeptJob &kept, const KeptJob &there);

// The statements for psql.
QByteArray passwordScript(const QString &account, const QString &hash);
QByteArray settingScript(const QString &account, const KeptSetting &setting, SaidBy by);

// A value that PostgreSQL keeps of a setting that is a list of names, such as search_path, as those names. False where
// it is none.
bool splitNames(const QString &value, QStringList *names);

} // namespace corv::ctl
