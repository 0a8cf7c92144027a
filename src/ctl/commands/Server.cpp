#include "common/Account.h"
#include "common/AskedDomain.h"
#include "common/BackupConfig.h"
#include "common/Json.h"
#include "common/Paths.h"
#include "ctl/Command.h"
#include "ctl/Input.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/commands/AccountSites.h"
#include "ctl/commands/RestoreText.h"
#include "ctl/restore/Panel.h"
#include "ctl/restore/Restore.h"
#include "ctl/restore/Sources.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QSettings>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// What is to be done with one account of the backup.
struct Intended
{
    QString account;
    std::optional<Plan> plan;
    QString problem; // why there is no plan, empty where it is here already
};

// What became of all.
struct Outcomes
{
    QStringList failed; // in words
    QStringList open;   // those of them that another run has something to do for
    QJsonArray accounts;
    QList<Row> rows;
    bool isInterrupted = false;
};

Intended intendedFor(const QString &folder, const QString &account)
{
    Intended intended = {account, {}, {}};
    const std::optional<Source> source = sourceIn(folder, account);
    if (!source)
        intended.problem = u"it holds nothing of that account"_s;
    else
        intended.problem = refusalOf(*source);
    if (!intended.problem.isEmpty())
        return intended;
    QString hint;
    intended.plan = planFor(*source, {}, {}, &intended.problem, &hint);
    // Done by an earlier run, which this one goes on from.
    if (intended.problem.startsWith("there is a user "_L1))
        intended.problem = hosting::isOurs(account) ? QString() : u"a user of that name is here, who is no account"_s;
    return intended;
}

Cell planCell(const Intended &intended)
{
    if (!intended.problem.isEmpty())
        return text(intended.problem, Colour::Bad);
    if (!intended.plan)
        return text(u"is here already"_s);
    return intended.plan->cutOff ? text(u"goes on"_s, Colour::Warning) : text(u"restore"_s, Colour::Good);
}

void showPlan(const Session &session, const QList<Intended> &all, const QString &folder, const Given &given)
{
    if (session.options.json || session.options.plain)
        return;
    QList<Row> rows;
    for (const Intended &one : all)
        rows.append({text(one.account), one.plan ? text(one.plan->domain) : nothing(),
                     one.plan ? bytes(one.plan->source.homeBytes) : nothing(),
                     one.plan ? bytes(one.plan->source.dumpBytes) : nothing(),
                     !one.plan         ? nothing()
                     : one.plan->state ? text(u"yes"_s)
                                       : text(u"no"_s, Colour::Warning),
                     planCell(one)});
    printTable(session, {u"ACCOUNT"_s, u"DOMAIN"_s, u"FILES"_s, u"DATABASE"_s, u"STATE"_s, u"PLAN"_s}, rows);
    const auto tell = [&](const char *option, const QString &what, const QString &file) {
        if (!exists(folder + u'/' + file))
            note(u"the backup does not hold %1"_s.arg(what));
        else
            note(given.has(option) ? u"%1 of this server is replaced by the backup's"_s.arg(what)
                                   : u"%1 of this server stays as it is; %2 takes the backup's"_s.arg(
                                         what, QLatin1StringView(option)));
    };
    tell("--panel", u"the panel's database"_s, u"panel.dump"_s);
    tell("--settings", u"the panel's settings"_s, u"config.tar.gz"_s);
}

void restoreOne(Session &session, const backup::Config &config, const Plan &plan, Outcomes *all)
{
    const QString otherwise = u"corvctl account restore %1 --from %2 --domain DOMAIN gives it another one"_s.arg(
        plan.target, plan.source.from);
    if (refuseTaken(session, hosting::askedDomain(plan.domain), plan.target, {}, otherwise)) {
        all->failed.append(plan.target);
        all->open.append(plan.target);
        all->rows.append({text(plan.target), text(u"its domain is taken"_s, Colour::Bad), nothing(), nothing()});
        return;
    }
    const Restored done = restoreAccount(session, config, plan, sayer(session, plan.target));
    all->accounts.append(restoredObject(plan, done));
    for (const QString &lost : done.lost)
        note(u"%1 is not as it was: %2"_s.arg(plan.target, lost));
    if (!done.password.isEmpty() && done.problem.isEmpty() && !session.options.json)
        note(u"the database of %1 has a new password: corvctl account password %1 sets one and tells it"_s.arg(
            plan.target));
    if (done.status != kDone)
        all->failed.append(plan.target);
    // One that is here is passed over by another run, whatever of it is not as it was.
    if (!done.problem.isEmpty())
        all->open.append(plan.target);
    all->isInterrupted = done.status > kTimedOut;
    all->rows.append({text(plan.target),
                      done.problem.isEmpty() ? text(u"restored"_s, Colour::Good) : text(done.problem, Colour::Bad),
                      text(done.seen), span(done.seconds)});
}

void passOver(const QString &account, Outcomes *all)
{
    all->failed.append(account);
    all->open.append(account);
}

void restoreRest(const Session &session, const QString &folder, const Given &given, Outcomes *all)
{
    if (given.has("--settings")) {
        QString kept;
        if (const QString problem = restoreSettings(folder + u"/config.tar.gz"_s, &kept); !problem.isEmpty()) {
            all->failed.append(u"settings"_s);
            all->open.append(u"settings"_s);
            note(u"the settings are not restored: %1"_s.arg(problem));
        }
        if (!kept.isEmpty() && !session.options.json)
            note(u"the settings that were here are in %1"_s.arg(kept));
    }
    if (given.has("--panel")) {
        if (const QString problem = restorePanelDatabase(folder + u"/panel.dump"_s); !problem.isEmpty()) {
            all->failed.append(u"panel"_s);
            all->open.append(u"panel"_s);
            note(u"the panel's database is not restored: %1"_s.arg(problem));
        }
    }
}

// The accounts that are wanted; nothing, after that was said, where one is not in the backup.
std::optional<QStringList> wantedOf(const Session &session, const QString &folder, const Given &given)
{
    const QStringList held = accountsIn(folder);
    if (!given.has("--only"))
        return held;
    const QStringList wanted = given.text("--only").split(u',', Qt::SkipEmptyParts);
    for (const QString &name : wanted) {
        if (!held.contains(name)) {
            (void)refuse(session, u"%1 holds nothing of %2"_s.arg(folder, name));
            return {};
        }
    }
    return wanted;
}

int tell(const Session &session, const QString &folder, const Outcomes &all)
{
    if (session.options.json) {
        const QByteArray line = compactJson({{u"ok"_s, all.failed.isEmpty()},
                                             {u"accounts"_s, all.accounts},
                                             {u"failed"_s, QJsonArray::fromStringList(all.failed)}});
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
    } else {
        printTable(session, {u"ACCOUNT"_s, u"RESULT"_s, u"SITE"_s, u"TOOK"_s}, all.rows);
    }
    if (all.failed.isEmpty())
        return kDone;
    const int status = all.isInterrupted ? interruptedStatus() : kRefused;
    if (all.open.isEmpty())
        return fail(status, u"not all is as it was: %1"_s.arg(all.failed.join(", "_L1)),
                    u"these are here, so another run passes them over"_s);
    return fail(status, u"not all is restored: %1"_s.arg(all.failed.join(", "_L1)),
                u"corvctl server restore %1 again goes on with %2"_s.arg(folder, all.open.join(", "_L1)));
}

int restore(Session &session, const Given &given)
{
    if (const std::optional<int> end = refuseElsewhere(session, u"server restore"_s))
        return *end;
    bareEnvironment();
    const QString folder = QDir::cleanPath(QDir::current().absoluteFilePath(given.text("FOLDER")));
    if (!QFileInfo(folder + u"/accounts"_s).isDir())
        return refuse(session, u"%1 is no folder of a backup"_s.arg(folder),
                      u"a backup is a folder such as /var/backups/corvane/auto/2026-11-22_031500"_s);
    const std::optional<QStringList> wanted = wantedOf(session, folder, given);
    if (!wanted)
        return kRefused;
    QList<Intended> all;
    for (const QString &account : *wanted)
        all.append(intendedFor(folder, account));
    showPlan(session, all, folder, given);

    const QString name = QFileInfo(folder).fileName();
    const std::optional<QString> typed = confirmation(
        session,
        u"This makes these accounts on this server. Type the backup's name, %1, to go on:"_s.arg(escaped(name)));
    if (!typed)
        return kWrongUsage;
    if (*typed != name)
        return fail(kWrongUsage, u"that is not the backup's name, so nothing was restored"_s);

    Outcomes outcomes;
    restoreRest(session, folder, given, &outcomes);
    const InterruptGuard guard;
    const backup::Config config = backup::load(QSettings(settingsPath(session.options), QSettings::IniFormat));
    for (const Intended &one : all) {
        const bool isHere = one.problem.isEmpty() && !one.plan;
        if (one.plan && one.problem.isEmpty() && !interrupted())
            restoreOne(session, config, *one.plan, &outcomes);
        else if (!isHere)
            passOver(one.account, &outcomes);
    }
    return tell(session, folder, outcomes);
}

} // namespace

Command serverCommand()
{
    return {"server",
            "All of a server at once",
            {},
            nullptr,
            {{"restore",
              "Bring back all accounts of a backup on a fresh server; asks for the backup's name",
              {{"FOLDER", "the backup's folder", Kind::Required, Names::File},
               {"--only", "these accounts alone, parted by commas", Kind::Value},
               {"--panel", "the panel's database, too, in place of the one that is here", Kind::Flag},
               {"--settings", "the panel's settings files, too; those that are here are saved before", Kind::Flag}},
              restore}}};
}

} // namespace corv::ctl
