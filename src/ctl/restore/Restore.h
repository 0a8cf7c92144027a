#pragma once

#include "common/BackupConfig.h"
#include "ctl/RestoreJournal.h"
#include "ctl/restore/Sources.h"
#include "ctl/restore/State.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace corv::ctl {

struct Answer;
struct Session;

// What is to be brought back, and as what.
struct Plan
{
    Source source;
    QString target; // the account's name from now on
    QString domain;
    std::optional<AccountState> state;
    std::optional<Journal> cutOff; // of an earlier restore to the same name
    bool isWithoutJobs = false;    // whether crontab, jobs of at and services without a login are left out
};

// What became of it.
struct Restored
{
    int status = 0;     // the exit status: see Session.h
    QString problem;    // why it ended before its end, empty when it did not
    QStringList lost;   // what could not be put back, as sentences
    QString leftOut;    // what was not meant to be, in words
    QString aside;      // the folder of the home that has what was there before; empty where nothing was
    QString password;   // the database's new one, where the old one could not be put back
    qint64 entries = 0; // of the home
    int tables = 0;     // that the database has
    int lostTables = 0; // that its dump has and it has not
    QString seen;       // what a visitor sees of the site
    bool isSeenWell = false;
    qint64 seconds = 0;
};

// The number of a user, 0 for none.
qint64 uidOf(const QString &account);

// Why a request to the agent did not do what was asked; empty when it did.
QString problemOf(const Answer &answer);

// What of a state runs by itself, in words; empty for nothing.
QString jobsText(const AccountState &state);

// What is planned for a name: by the source, what was written down, and an earlier restore of that name. Nothing, with
// the reason in problem and a hint, where it cannot be done. wanted: the name and the domain that were given, or empty.
std::optional<Plan> planFor(const Source &source, const QString &wantedName, const QString &wantedDomain,
                            QString *problem, QString *hint);

// Does it, as root, on the server itself: reads both archives to their ends, has the agent make the account, puts
// everything back, and looks at the site. say tells of each step. May be done again after it ended at any point.
Restored restoreAccount(Session &session, const backup::Config &config, const Plan &plan,
                        const std::function<void(const QString &)> &say);

} // namespace corv::ctl
