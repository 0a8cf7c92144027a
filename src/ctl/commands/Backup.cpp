#include "ctl/commands/Backup.h"

#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Interrupt.h"
#include "ctl/Meant.h"
#include "ctl/Session.h"
#include "ctl/commands/BackupVerdicts.h"
#include "ctl/screen/BackupStage.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Follow.h"
#include "ctl/screen/SystemdTime.h"
#include "ctl/screen/Table.h"

#include <QDeadlineTimer>
#include <QJsonArray>

#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// How long a backup that was asked for may take to show up, in milliseconds: systemd begins it behind the reply's back.
constexpr int kStartTime = 20'000;

QJsonArray backupsIn(const QJsonObject &reply)
{
    return reply.value("backups"_L1).toArray();
}

QStringList backupNames(const QJsonObject &reply)
{
    QStringList names;
    for (const QJsonValue value : backupsIn(reply))
        names.append(value.toObject().value("name"_L1).toString());
    return names;
}

// The backup that has come since; empty where none has. Not the newest by its name: one that was made while the clock
// was ahead has a later name than all that follow.
QJsonObject madeSince(const QJsonObject &before, const QJsonObject &reply)
{
    for (const QJsonValue value : backupsIn(reply)) {
        const QJsonObject backup = value.toObject();
        if (backupNamed(before, backup.value("name"_L1).toString()).isEmpty())
            return backup;
    }
    return {};
}

// How many things could not be saved. A backup without a manifest tells nothing.
Cell errorsOf(const QJsonObject &backup)
{
    if (!backup.contains("errors"_L1))
        return {u"unknown"_s, {}, Colour::Warning, true};
    Cell count = number(backup.value("errors"_L1).toArray().size());
    count.colour = count.plain == "0"_L1 ? Colour::Good : Colour::Bad;
    return count;
}

// For people as systemd writes it; for programs in seconds.
Cell nextIn(const QJsonObject &reply)
{
    const QString next = reply.value("next"_L1).toString();
    if (next.isEmpty())
        return {u"none planned"_s, {}, Colour::Warning, false};
    const std::optional<qint64> seconds = systemdTime(next);
    return {escaped(next), seconds ? QString::number(*seconds) : QString(), Colour::None, false};
}

int status(Session &session, const Given &)
{
    const Answer answer = ask(session, u"backup.status"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    const QJsonObject &reply = answer.reply;
    const QJsonObject newest = withVerdicts(session, reply).at(0).toObject();
    QList<Fact> facts = {{u"Backups"_s, number(backupsIn(reply).size())},
                         {u"Being made"_s, yesNo(reply.value("running"_L1).toBool())},
                         {u"Next"_s, nextIn(reply)},
                         {u"Kept for"_s,
                          {u"%1 d"_s.arg(reply.value("keepDays"_L1).toInteger()),
                           QString::number(reply.value("keepDays"_L1).toInteger()), Colour::None, true}},
                         {u"Folder"_s, text(reply.value("destination"_L1).toString())},
                         {u"Free"_s, bytes(reply.value("freeBytes"_L1).toInteger())},
                         {u"Size of the disk"_s, bytes(reply.value("totalBytes"_L1).toInteger())}};
    if (!newest.isEmpty()) {
        facts.append({u"Newest"_s, text(newest.value("name"_L1).toString())});
        facts.append({u"Its errors"_s, errorsOf(newest)});
        facts.append({u"Verified"_s, verifiedOf(newest)});
        facts.append({u"Its faults"_s, faultsOf(newest)});
    }
    printFacts(session, facts);
    return kDone;
}

int list(Session &session, const Given &)
{
    const Answer answer = ask(session, u"backup.status"_s);
    if (!answer.ok())
        return settled(session, answer).value_or(kRefused);
    const QJsonArray backups = withVerdicts(session, answer.reply);
    if (session.options.json) {
        QJsonObject reply = answer.reply;
        reply.insert(u"backups"_s, backups);
        const QByteArray line = compactJson(reply);
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return kDone;
    }
    QList<Row> rows;
    for (const QJsonValue value : backups) {
        const QJsonObject backup = value.toObject();
        rows.append({text(backup.value("name"_L1).toString()), bytes(backup.value("bytes"_L1).toInteger()),
                     backup.contains("accounts"_L1) ? number(backup.value("accounts"_L1).toArray().size()) : nothing(),
                     backup.contains("seconds"_L1) ? span(backup.value("seconds"_L1).toInteger()) : nothing(),
                     errorsOf(backup), verifiedOf(backup), faultsOf(backup)});
        for (const QString &fault : faultSentences(backup))
            note(u"%1: %2"_s.arg(backup.value("name"_L1).toString(), fault));
    }
    printTable(session, {u"BACKUP"_s, u"SIZE"_s, u"ACCOUNTS"_s, u"TOOK"_s, u"ERRORS"_s, u"VERIFIED"_s, u"FAULTS"_s},
               rows);
    return kDone;
}

int show(Session &session, const Given &given)
{
    const QString name = given.text("BACKUP");
    const Answer answer = ask(session, u"backup.status"_s);
    if (!answer.ok())
        return *settled(session, answer);
    const QJsonObject backup = backupNamed(answer.reply, name);
    if (backup.isEmpty())
        return refuseNoBackup(session, name, answer.reply);
    if (!backup.contains("accounts"_L1)) {
        return refuse(session, u"the backup %1 has no list of what it holds: it was cut off, or is damaged"_s.arg(name),
                      u"journalctl -u corv-backup tells why"_s);
    }
    if (const std::optional<int> end = settled(session, answer))
        return *end;

    for (const QJsonValue error : backup.value("errors"_L1).toArray())
        note(oneSentence(error.toString()));
    QList<Row> rows;
    for (const QJsonValue value : backup.value("accounts"_L1).toArray()) {
        const QJsonObject account = value.toObject();
        rows.append({text(account.value("username"_L1).toString()), text(account.value("domain"_L1).toString()),
                     bytes(account.value("homeBytes"_L1).toInteger()), bytes(account.value("dbBytes"_L1).toInteger())});
    }
    printTable(session, {u"ACCOUNT"_s, u"DOMAIN"_s, u"FILES"_s, u"DATABASE"_s}, rows);
    return kDone;
}

int log(Session &session, const Given &)
{
    const Answer answer = ask(session, u"backup.status"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    print(escapedLines(answer.reply.value("log"_L1).toString()).toUtf8());
    return kDone;
}

// Follows a backup from the status before it was asked for. It has ended when none is running and either one was seen
// running or something new is there; a run that fails at once leaves nothing but lines in its log. A status lists the
// backups before it asks whether one is running, so that one which ends in between shows only at the next look.
int followBackup(Session &session, const QJsonObject &before)
{
    LogFollower follower(session, before.value("log"_L1).toString());
    BackupBar bar(session);
    const QDeadlineTimer start(kStartTime);
    bool seen = false;
    bool ended = false;
    const Answer last = askUntil(session, u"backup.status"_s, [&](const QJsonObject &reply) {
        const bool running = reply.value("running"_L1).toBool();
        const bool isNew = !madeSince(before, reply).isEmpty();
        bar.clear();
        seen = !follower.take(reply.value("log"_L1).toString()).isEmpty() || running || seen;
        bar.show(reply);
        const bool hadEnded = std::exchange(ended, !running && (seen || start.hasExpired()));
        return !running && (isNew || hadEnded);
    });
    bar.clear();
    if (last.fate == Answer::Fate::Interrupted)
        return fail(interruptedStatus(), u"the backup goes on; corvctl backup log shows how far it is"_s);
    if (const std::optional<int> end = settled(session, last); end && *end != kDone)
        return *end;

    const QJsonObject backup = madeSince(before, last.reply);
    const QString newest = backup.value("name"_L1).toString();
    if (newest.isEmpty())
        return fail(kRefused, u"no backup was made"_s, u"journalctl -u corv-backup tells why"_s);
    if (!backup.contains("errors"_L1))
        return fail(kRefused, u"the backup %1 was made without a list of what is in it"_s.arg(newest),
                    u"journalctl -u corv-backup tells why"_s);
    const QJsonArray errors = backup.value("errors"_L1).toArray();
    if (!errors.isEmpty())
        return fail(kRefused, u"the backup %1 was made with %2 error(s)"_s.arg(newest, QString::number(errors.size())),
                    u"corvctl backup show %1 tells them"_s.arg(newest));
    if (!session.options.json && !session.options.plain)
        printLine(u"the backup %1 was made"_s.arg(escaped(newest)));
    return kDone;
}

// Says that a backup that was asked for has begun, once it has: it shows in the log, runs, or is there.
int hasBegun(Session &session, const Answer &answer, const QJsonObject &before)
{
    const QDeadlineTimer start(kStartTime);
    bool seen = false;
    const Answer last = askUntil(session, u"backup.status"_s, [&](const QJsonObject &reply) {
        seen = reply.value("running"_L1).toBool() || !madeSince(before, reply).isEmpty() ||
               reply.value("log"_L1) != before.value("log"_L1);
        return seen || start.hasExpired();
    });
    if (!last.ok())
        return settled(session, last).value_or(kRefused);
    if (!seen)
        return fail(kRefused, u"the backup was asked for, but does not begin"_s,
                    u"journalctl -u corv-backup tells why"_s);
    return settledWith(session, answer, u"the backup has begun; corvctl backup log shows how far it is"_s);
}

int start(Session &session, const Given &given)
{
    const bool wait = given.has("--wait") && !session.options.printOnly;
    QJsonObject before;
    if (!session.options.printOnly) {
        const Answer status = ask(session, u"backup.status"_s);
        if (!status.ok())
            return settled(session, status).value_or(kRefused);
        before = status.reply;
        if (before.value("running"_L1).toBool())
            return fail(kRefused, u"a backup is being made already"_s, u"corvctl backup log shows how far it is"_s);
    }

    const Answer answer = ask(session, u"backup.start"_s);
    if (!wait)
        return answer.ok() ? hasBegun(session, answer, before) : settled(session, answer).value_or(kDone);
    if (const std::optional<int> end = settled(session, answer); end && *end != kDone)
        return *end;
    return followBackup(session, before);
}

} // namespace

QJsonObject backupNamed(const QJsonObject &status, const QString &name)
{
    for (const QJsonValue value : status.value("backups"_L1).toArray()) {
        if (value.toObject().value("name"_L1).toString() == name)
            return value.toObject();
    }
    return {};
}

int refuseNoBackup(const Session &session, const QString &name, const QJsonObject &status)
{
    return refuseNoBackup(session, name, backupNames(status));
}

int refuseNoBackup(const Session &session, const QString &name, const QStringList &backups)
{
    const QString hint = meantHint(u"backup"_s, name, backups);
    return refuse(session, u"there is no backup %1"_s.arg(name), hint.isEmpty() ? QString(kListBackups) : hint);
}

Command backupCommand()
{
    const Parameter backup = {"BACKUP", "its name in corvctl backup list", Kind::Required, Names::Backup};
    return {"backup",
            "Backups of all accounts",
            {},
            nullptr,
            {{"status", "Show when backups are made, where, and how the newest went", {}, status},
             {"list", "List the backups", {}, list},
             {"show", "Show what a backup holds of each account, and what could not be saved", {backup}, show},
             {"log", "Show the end of the backups' log", {}, log},
             mountedCommand(),
             {"start",
              "Start a backup now",
              {{"--wait", "follow the log until the end; the exit status tells the outcome", Kind::Flag}},
              start},
             verifyCommand(),
             restoreCommand()}};
}

} // namespace corv::ctl
