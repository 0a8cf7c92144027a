#include "common/BackupConfig.h"
#include "common/Environment.h"
#include "common/Json.h"
#include "common/Paths.h"
#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/commands/Account.h"
#include "ctl/restore/Kept.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QDateTime>
#include <QJsonArray>
#include <QSettings>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Says how the work went, which has nothing to show when it went well.
int ended(const Session &session, const QString &problem)
{
    if (!problem.isEmpty())
        return refuse(session, problem);
    if (session.options.json)
        print("{\"ok\":true}\n");
    return kDone;
}

// Shows of whom there is a state and when it was written down, and nothing of what is in it: that is secret.
int show(const Session &session)
{
    QList<AccountState> states;
    if (exists(kKeptStates)) {
        int bad = 0;
        QString problem;
        states = readStates(kKeptStates, &bad, &problem);
        if (!problem.isEmpty())
            return refuse(session, problem);
        if (bad > 0)
            note(u"%1 lines of %2 could not be read"_s.arg(bad).arg(kKeptStates));
    }
    if (session.options.json) {
        QJsonArray accounts;
        for (const AccountState &state : states)
            accounts.append(QJsonObject{{u"username"_s, state.username}, {u"taken"_s, state.taken}});
        const QByteArray line = compactJson({{u"ok"_s, true}, {u"accounts"_s, accounts}});
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return kDone;
    }
    QList<Row> rows;
    for (const AccountState &state : states)
        rows.append({text(state.username), text(state.domain), time(state.taken),
                     state.role && !state.role->isEmpty() ? text(u"yes"_s) : text(u"no"_s, Colour::Warning)});
    printTable(session, {u"ACCOUNT"_s, u"DOMAIN"_s, u"WRITTEN DOWN"_s, u"PASSWORD"_s}, rows);
    return kDone;
}

} // namespace

int accountState(Session &session, const Given &given)
{
    if (session.options.printOnly || !session.options.hosts.empty())
        return fail(kWrongUsage, u"what is written down of accounts is read on the server itself, not asked for"_s);
    if (::geteuid() != 0)
        return fail(kNoConnection, u"what is written down of accounts is for root alone"_s,
                    u"run it as root: sudo corvctl account state"_s);
    cleanEnvironment();
    if (given.has("--write"))
        return ended(session, keepStates());
    if (given.has("--place")) {
        const QSettings settings(settingsPath(session.options), QSettings::IniFormat);
        return ended(session, placeInBackup(backup::load(settings)));
    }
    return show(session);
}

} // namespace corv::ctl
