#include "ctl/commands/Account.h"

#include "common/Account.h"
#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// How long the list of another server's accounts is waited for.
constexpr int kListSeconds = 60;

// No command of the agent lists the accounts: the system's user database is their only record.
QJsonArray accountsHere()
{
    QList<hosting::User> accounts;
    for (const hosting::User &user : hosting::users()) {
        if (hosting::hasMarker(user.comment))
            accounts.append(user);
    }
    std::sort(accounts.begin(), accounts.end(), [](const auto &a, const auto &b) { return a.name < b.name; });

    QJsonArray all;
    for (const hosting::User &user : accounts)
        all.append(QJsonObject{{u"username"_s, user.name},
                               {u"domain"_s, hosting::domainIn(user.comment)},
                               {u"home"_s, user.home},
                               {u"uid"_s, static_cast<qint64>(user.uid)}});
    return all;
}

// The list that a corvctl on another server prints. Nothing where there is none, which is said on standard error.
std::optional<QJsonArray> accountsThere(const Session &session, int *status)
{
    const Distant list = runThere(session.options, {u"corvctl"_s, u"account"_s, u"list"_s, u"--json"_s}, kListSeconds);
    const QJsonObject answer = QJsonDocument::fromJson(list.output).object();
    if (list.problem.isEmpty() && answer.value("accounts"_L1).isArray())
        return answer.value("accounts"_L1).toArray();
    *status = list.problem.isEmpty() ? fail(kNoConnection, u"what answers there is no list of accounts"_s)
                                     : fail(list.status, list.problem);
    return {};
}

} // namespace

int listAccounts(Session &session, const Given &)
{
    if (session.options.printOnly)
        return fail(kWrongUsage, u"the list of accounts is read from the user database, not asked for"_s);

    int status = kNoConnection;
    const std::optional<QJsonArray> accounts =
        session.options.hosts.empty() ? accountsHere() : accountsThere(session, &status);
    if (!accounts)
        return status;

    if (session.options.json) {
        const QByteArray line = compactJson({{u"ok"_s, true}, {u"accounts"_s, *accounts}});
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return kDone;
    }
    QList<Row> rows;
    for (const QJsonValue value : *accounts) {
        const QJsonObject account = value.toObject();
        rows.append({text(account.value("username"_L1).toString()), text(account.value("domain"_L1).toString()),
                     text(account.value("home"_L1).toString()), number(account.value("uid"_L1).toInteger())});
    }
    printTable(session, {u"ACCOUNT"_s, u"DOMAIN"_s, u"HOME"_s, u"UID"_s}, rows);
    return kDone;
}

} // namespace corv::ctl
