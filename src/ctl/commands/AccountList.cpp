#include "ctl/commands/Account.h"

#include "common/Account.h"
#include "common/BackupConfig.h"
#include "common/Environment.h"
#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/doctor/AccountFacts.h"
#include "ctl/doctor/Facts.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSettings>

#include <algorithm>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// How long the list of another server's accounts is waited for.
constexpr int kListSeconds = 60;

// No command of the agent lists the accounts: the system's user database is their only record. What they use is not
// measured, which would take minutes: root is told by the quotas or the newest backup.
QJsonObject accountsHere(const Options &options)
{
    Used used;
    if (::geteuid() == 0) {
        cleanEnvironment();
        used = readUsed(backup::load(QSettings(settingsPath(options), QSettings::IniFormat)));
    }
    QJsonArray all;
    for (const hosting::User &user : hosting::users()) {
        if (!hosting::hasMarker(user.comment))
            continue;
        QJsonObject account = {{u"username"_s, user.name},
                               {u"domain"_s, hosting::domainIn(user.comment)},
                               {u"home"_s, user.home},
                               {u"uid"_s, static_cast<qint64>(user.uid)},
                               {u"state"_s, stateOf(readAccount(user, {}))}};
        if (used.bytes.contains(user.name))
            account.insert(u"usedBytes"_s, used.bytes.value(user.name));
        if (used.limits.contains(user.name))
            account.insert(u"limitBytes"_s, used.limits.value(user.name));
        all.append(account);
    }
    QJsonObject list = {{u"ok"_s, true}, {u"accounts"_s, all}};
    if (!used.source.isEmpty())
        list.insert(u"usedFrom"_s, used.source);
    return list;
}

// The list that a corvctl on another server prints. Nothing where there is none, which is said on standard error.
std::optional<QJsonObject> accountsThere(const Session &session, int *status)
{
    const Distant list = runThere(session.options, {u"corvctl"_s, u"account"_s, u"list"_s, u"--json"_s}, kListSeconds);
    const QJsonObject answer = QJsonDocument::fromJson(list.output).object();
    if (list.problem.isEmpty() && answer.value("accounts"_L1).isArray())
        return answer;
    *status = list.problem.isEmpty() ? fail(kNoConnection, u"what answers there is no list of accounts"_s)
                                     : fail(list.status, list.problem);
    return {};
}

// By the name within what is the same; what uses most comes first.
QList<QJsonObject> sorted(const QJsonArray &accounts, const QString &key)
{
    QList<QJsonObject> all;
    for (const auto &account : accounts)
        all.append(account.toObject());
    const auto textIn = [](const QJsonObject &account, QLatin1StringView member) {
        return account.value(member).toString();
    };
    std::sort(all.begin(), all.end(), [&](const QJsonObject &a, const QJsonObject &b) {
        return textIn(a, "username"_L1) < textIn(b, "username"_L1);
    });
    std::stable_sort(all.begin(), all.end(), [&](const QJsonObject &a, const QJsonObject &b) {
        if (key == "domain"_L1)
            return textIn(a, "domain"_L1) < textIn(b, "domain"_L1);
        if (key == "state"_L1)
            return textIn(a, "state"_L1) < textIn(b, "state"_L1);
        return key == "used"_L1 && a.value("usedBytes"_L1).toInteger(-1) > b.value("usedBytes"_L1).toInteger(-1);
    });
    return all;
}

void noteSource(const QString &source)
{
    if (source == "backup"_L1)
        note(u"USED: the size of each home's archive in the newest backup; corvctl account usage measures the homes"_s);
    else if (source.isEmpty())
        note(u"USED is told to root alone, by the disk quotas or the newest backup"_s);
}

} // namespace

int listAccounts(Session &session, const Given &given)
{
    if (session.options.printOnly)
        return fail(kWrongUsage, u"the list of accounts is read from the user database, not asked for"_s);

    int status = kNoConnection;
    std::optional<QJsonObject> list =
        session.options.hosts.empty() ? std::optional(accountsHere(session.options)) : accountsThere(session, &status);
    if (!list)
        return status;

    const QList<QJsonObject> accounts = sorted(list->value("accounts"_L1).toArray(), given.text("--sort"));
    if (session.options.json) {
        QJsonArray all;
        for (const QJsonObject &account : accounts)
            all.append(account);
        list->insert(u"accounts"_s, all);
        const QByteArray line = compactJson(*list);
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return kDone;
    }
    QList<Row> rows;
    for (const QJsonObject &account : accounts) {
        const QString state = account.value("state"_L1).toString();
        rows.append({text(account.value("username"_L1).toString()), text(account.value("domain"_L1).toString()),
                     text(state, state == "on-line"_L1 ? Colour::Good : Colour::Warning),
                     account.contains("usedBytes"_L1) ? bytes(account.value("usedBytes"_L1).toInteger()) : nothing(),
                     text(account.value("home"_L1).toString()), number(account.value("uid"_L1).toInteger())});
    }
    printTable(session, {u"ACCOUNT"_s, u"DOMAIN"_s, u"STATE"_s, u"USED"_s, u"HOME"_s, u"UID"_s}, rows);
    // Where nobody reads it, the name of the source stands in the JSON.
    if (session.terminal.out && !session.options.plain && !accounts.isEmpty())
        noteSource(list->value("usedFrom"_L1).toString());
    return kDone;
}

} // namespace corv::ctl
