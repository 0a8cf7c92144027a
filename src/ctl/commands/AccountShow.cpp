#include "ctl/commands/Account.h"

#include "common/Account.h"
#include "common/BackupConfig.h"
#include "common/Environment.h"
#include "common/Json.h"
#include "common/Pool.h"
#include "ctl/Command.h"
#include "ctl/Keys.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/doctor/AccountFacts.h"
#include "ctl/doctor/Backup.h"
#include "ctl/doctor/Facts.h"
#include "ctl/doctor/Forwards.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/https/View.h"
#include "ctl/move/Journal.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QDateTime>
#include <QJsonArray>
#include <QSettings>

#include <algorithm>

#include <pwd.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kThereSeconds = 120;
constexpr qint64 kDay = 86'400;
constexpr qint64 kSoon = 14 * kDay; // a certificate that is not renewed by then never is by itself

// The account of that name in the user database.
std::optional<hosting::User> findAccount(const QString &name)
{
    for (const hosting::User &user : hosting::users()) {
        if (user.name == name && hosting::hasMarker(user.comment))
            return user;
    }
    return {};
}

// What the system's files tell to anybody: site, state, PHP, and the sites beside its own with their certificates.
QJsonObject readParts(const hosting::User &user)
{
    const AccountParts parts = readAccount(user, phpVersions());
    QJsonObject account = {{u"username"_s, user.name},
                           {u"domain"_s, parts.domain},
                           {u"state"_s, stateOf(parts)},
                           {u"home"_s, user.home},
                           {u"uid"_s, static_cast<qint64>(user.uid)}};
    if (!parts.pools.isEmpty())
        account.insert(u"php"_s, parts.pools.join(u' '));

    const QList<VirtualHost> hosts = readSites();
    const QStringList beside = sitesBeside(hosts, user.name, parts.domain);
    account.insert(u"sitesBeside"_s, QJsonArray::fromStringList(beside));
    for (const VirtualHost &host : hosts) {
        if (host.isEncrypted && !host.certificate.isEmpty() && beside.contains(host.site) &&
            !account.contains("certificate"_L1))
            account.insert(u"certificate"_s, QJsonObject{{u"file"_s, host.certificate}, {u"site"_s, host.site}});
    }
    return account;
}

// How far its own site is on HTTPS, where that is on.
void addHttps(const QString &name, QJsonObject *account)
{
    const std::optional<https::State> state = readHttps();
    const std::optional<HttpsSite> site =
        state ? readHttpsSite(name, *state, QDateTime::currentSecsSinceEpoch()) : std::nullopt;
    if (!site)
        return;
    account->insert(u"https"_s, QJsonObject{{u"state"_s, stageWord(site->stage)}, {u"remark"_s, site->remark}});
    if (site->ends > 0 && !account->contains("certificate"_L1))
        account->insert(u"certificate"_s, QJsonObject{{u"validUntil"_s, site->ends}});
}

// What root alone may read.
void addSecrets(const Options &options, const hosting::User &user, QJsonObject *account)
{
    const Used used = readUsed(backup::load(QSettings(settingsPath(options), QSettings::IniFormat)));
    if (used.bytes.contains(user.name)) {
        account->insert(u"usedBytes"_s, used.bytes.value(user.name));
        account->insert(u"usedFrom"_s, used.source);
    }
    if (used.limits.contains(user.name))
        account->insert(u"limitBytes"_s, used.limits.value(user.name));
    if (const std::optional<DatabaseSize> database = readDatabaseSize(user.name))
        account->insert(
            u"database"_s,
            QJsonObject{{u"name"_s, user.name}, {u"bytes"_s, database->bytes}, {u"readOnly"_s, database->isReadOnly}});
    if (const std::optional<qint64> login = lastLogin(user))
        account->insert(u"lastLogin"_s, *login);
    for (const Forward &forward : readForwards()) {
        if (forward.account == user.name)
            account->insert(u"movedTo"_s, forward.address);
    }
    if (moving::hasLeft(user.name))
        account->insert(u"left"_s, true);
    QJsonObject certificate = account->value("certificate"_L1).toObject();
    if (!certificate.isEmpty()) {
        if (const std::optional<qint64> end = certificateEnd(certificate.value("file"_L1).toString()))
            certificate.insert(u"validUntil"_s, *end);
        account->insert(u"certificate"_s, certificate);
    }
    addHttps(user.name, account);
}

// What the agent tells: its keys, and the newest backup that holds it. Gives the status to end with where the agent
// cannot be asked.
std::optional<int> addTold(Session &session, QJsonObject *account)
{
    const QString name = account->value("username"_L1).toString();
    const Answer keys = ask(session, u"hosting.getKeys"_s, {{u"username"_s, name}});
    if (keys.fate != Answer::Fate::Replied)
        return settled(session, keys);
    QJsonArray all;
    for (const PublicKey &key : parseKeys(keys.reply.value("keys"_L1).toString()))
        all.append(
            QJsonObject{{u"type"_s, key.type}, {u"comment"_s, key.comment}, {u"fingerprint"_s, key.fingerprint}});
    account->insert(u"keys"_s, all);

    const Answer backups = ask(session, u"backup.status"_s);
    if (backups.fate != Answer::Fate::Replied)
        return settled(session, backups);
    for (const auto &value : backups.reply.value("backups"_L1).toArray()) {
        const QJsonObject backup = value.toObject();
        for (const auto &saved : backup.value("accounts"_L1).toArray()) {
            if (saved.toObject().value("username"_L1).toString() != name || account->contains("lastBackup"_L1))
                continue;
            QJsonArray errors;
            for (const auto &error : backup.value("errors"_L1).toArray()) {
                if (error.toString().startsWith(name + u' '))
                    errors.append(error);
            }
            account->insert(u"lastBackup"_s, QJsonObject{{u"name"_s, backup.value("name"_L1)}, {u"errors"_s, errors}});
        }
    }
    return {};
}

// What a corvctl on the other server shows as JSON.
std::optional<QJsonObject> accountThere(const Session &session, const QString &name, int *status)
{
    const Distant shown =
        runThere(session.options, {u"corvctl"_s, u"account"_s, u"show"_s, name, u"--json"_s}, kThereSeconds);
    const QJsonObject account = parseObject(shown.output);
    if (shown.problem.isEmpty() && account.contains("username"_L1))
        return account;
    *status = shown.problem.isEmpty() ? fail(kNoConnection, u"what answers there does not know that command"_s)
                                      : fail(shown.status, shown.problem);
    return {};
}

Cell usedCell(const QJsonObject &account)
{
    if (!account.contains("usedBytes"_L1))
        return nothing();
    const QString from =
        account.value("usedFrom"_L1) == "backup"_L1 ? u" (its archive in the newest backup)"_s : QString();
    Cell cell = bytes(account.value("usedBytes"_L1).toInteger());
    cell.shown += from;
    return cell;
}

Cell loginCell(const QJsonObject &account)
{
    if (!account.contains("lastLogin"_L1))
        return nothing();
    const qint64 login = account.value("lastLogin"_L1).toInteger();
    return login > 0 ? time(login) : text(u"never"_s);
}

Cell backupCell(const QJsonObject &account)
{
    const QJsonObject backup = account.value("lastBackup"_L1).toObject();
    const auto errors = backup.value("errors"_L1).toArray().size();
    if (backup.isEmpty())
        return text(u"none"_s, Colour::Warning);
    const QString name = backup.value("name"_L1).toString();
    return errors == 0 ? text(name) : text(u"%1, with errors"_s.arg(name), Colour::Bad);
}

Cell certificateCell(const QJsonObject &account)
{
    const QJsonObject certificate = account.value("certificate"_L1).toObject();
    if (certificate.isEmpty())
        return text(u"none"_s);
    if (!certificate.contains("validUntil"_L1))
        return text(certificate.value("file"_L1).toString());
    const qint64 end = certificate.value("validUntil"_L1).toInteger();
    Cell cell = time(end);
    if (end - QDateTime::currentSecsSinceEpoch() < kSoon)
        cell.colour = Colour::Bad;
    cell.shown = u"until "_s + cell.shown;
    return cell;
}

Cell databaseCell(const QJsonObject &account)
{
    const QJsonObject database = account.value("database"_L1).toObject();
    if (database.isEmpty())
        return nothing();
    Cell cell = bytes(database.value("bytes"_L1).toInteger());
    cell.shown = u"%1, %2%3"_s.arg(escaped(database.value("name"_L1).toString()), cell.shown,
                                   database.value("readOnly"_L1).toBool() ? u", read-only"_s : QString());
    return cell;
}

void show(const Session &session, const QJsonObject &account)
{
    const QString state = account.value("state"_L1).toString();
    QList<Fact> facts = {
        {u"Account"_s, text(account.value("username"_L1).toString())},
        {u"Domain"_s, text(account.value("domain"_L1).toString())},
        {u"State"_s, text(state, state == "on-line"_L1 ? Colour::Good : Colour::Warning)},
        {u"Home"_s, text(account.value("home"_L1).toString())},
        {u"User id"_s, number(account.value("uid"_L1).toInteger())},
        {u"Used"_s, usedCell(account)},
        {u"Limit"_s, account.contains("limitBytes"_L1) ? bytes(account.value("limitBytes"_L1).toInteger()) : nothing()},
        {u"PHP"_s, text(account.value("php"_L1).toString(u"none in force"_s))},
        {u"Database"_s, databaseCell(account)},
        {u"Last backup"_s, backupCell(account)},
        {u"Last login"_s, loginCell(account)},
        {u"Certificate"_s, certificateCell(account)}};
    if (const QJsonObject https = account.value("https"_L1).toObject(); !https.isEmpty()) {
        const QString remark = https.value("remark"_L1).toString();
        facts.append(
            {u"HTTPS"_s, text(https.value("state"_L1).toString() + (remark.isEmpty() ? remark : u": "_s + remark))});
    }
    if (account.value("left"_L1).toBool())
        facts.append({u"Left"_s, text(u"for another server, which has it now"_s, Colour::Warning)});
    if (account.contains("movedTo"_L1))
        facts.append({u"Moved to"_s, text(account.value("movedTo"_L1).toString(), Colour::Warning)});
    for (const auto &site : account.value("sitesBeside"_L1).toArray())
        facts.append({u"Site beside"_s, text(site.toString())});
    const QJsonArray keys = account.value("keys"_L1).toArray();
    for (const auto &value : keys) {
        const QJsonObject key = value.toObject();
        facts.append({u"Key"_s, text(key.value("type"_L1).toString() + u' ' + key.value("comment"_L1).toString())});
        // In a line of its own, where it fits whole.
        facts.append({u"Fingerprint"_s, text(key.value("fingerprint"_L1).toString())});
    }
    if (keys.isEmpty())
        facts.append({u"Keys"_s, text(u"none"_s)});
    printFacts(session, facts);
}

} // namespace

int showAccount(Session &session, const Given &given)
{
    const QString name = given.text("ACCOUNT");
    if (session.options.printOnly) {
        (void)ask(session, u"hosting.getKeys"_s, accountIn(given));
        (void)ask(session, u"backup.status"_s);
        return kDone;
    }
    if (!hosting::validUsername(name))
        return refuseNoAccount(session, name);

    QJsonObject account;
    if (session.options.hosts.empty()) {
        const std::optional<hosting::User> user = findAccount(name);
        if (!user)
            return refuseNoAccount(session, name);
        account = readParts(*user);
        if (const std::optional<int> end = addTold(session, &account))
            return *end;
        if (::geteuid() == 0) {
            cleanEnvironment();
            addSecrets(session.options, *user, &account);
        } else {
            note(
                u"what it uses, its limit, its database, its last login and its certificate's end are told to root alone"_s);
        }
    } else {
        int status = kNoConnection;
        const std::optional<QJsonObject> there = accountThere(session, name, &status);
        if (!there)
            return status;
        account = *there;
    }

    account.insert(u"ok"_s, true);
    if (!session.options.json) {
        show(session, account);
        return kDone;
    }
    const QByteArray line = compactJson(account);
    print((session.terminal.out ? escapedJson(line) : line) + '\n');
    return kDone;
}

} // namespace corv::ctl
