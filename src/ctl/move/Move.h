#pragma once

#include "common/BackupConfig.h"
#include "ctl/move/Journal.h"
#include "ctl/move/There.h"
#include "ctl/restore/Look.h"

#include <QString>
#include <QStringList>

#include <QElapsedTimer>
#include <QList>
#include <functional>
#include <optional>

namespace corv::ctl {

struct Session;

namespace moving {

// What became of a move.
struct Moved
{
    int status = 0;         // the exit status: see Session.h
    QString problem;        // why it ended before its end, empty when it did not
    bool isDecided = false; // whether the account is this server's
    bool isBack = true;     // where it is not: whether the old server is known to serve it
    int timer = 0;          // else the seconds after which the timer over there sees to that
    QStringList lost;       // what is not as it was, as sentences
    int tables = 0;         // that the database has
    qint64 entries = 0;     // of the home
    qint64 rehearsed = 0;   // milliseconds that the rehearsal of the database took
    qint64 offline = -1;    // milliseconds from the account's suspension there until it was this server's; -1: none
    QList<std::pair<QString, qint64>> took; // the parts of that, in milliseconds
    QString address;                        // to which the old address leads now; empty where it does not
    std::optional<Seen> seen;
};

// What a move works with, from one step to the next.
struct Task
{
    Session &session;
    const backup::Config &config;
    std::function<void(const QString &)> say; // tells of a step
    Record record;
    AccountState state; // the account's, as it was last written down there
    Moved done;
    QElapsedTimer clock = {}; // since the last part of the switch was done
    // Of the home over there, as was told with the plan.
    qint64 homeBytes = 0;
    qint64 homeEntries = 0;
};

// Makes the account here, brings its files and its database while it is served there, and loads that, as often as it is
// called. Returns why it could not.
QString prepare(Task *task);

// Has the dump that is here loaded, as loadDump, and tells of what it could not count. Returns why not all of it is
// there.
QString load(Task *task);

// The switch: until it has returned nothing the account is the old server's, whatever becomes of this one.
QString switchOver(Task *task);

// Ends a switch of an earlier attempt that nothing is known of, on this server and the old one. The record then says
// whether it was decided. Returns why that cannot be found out.
QString endSwitch(Task *task);

// What comes when the account is this server's. What cannot be done is told in task->done.lost, and is tried again by
// the next attempt.
void finish(Task *task);

// All of a move, or with isRehearsal all but the switch and what follows it. Goes on with what the record tells of.
// Call it as root, with the turn of the account's move.
Moved moveAccount(Task *task, bool isRehearsal);

} // namespace moving
} // namespace corv::ctl
