#include "common/Account.h"
#include "common/AskedDomain.h"
#include "common/BackupConfig.h"
#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Input.h"
#include "ctl/RestoreJournal.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/commands/Account.h"
#include "ctl/commands/AccountSites.h"
#include "ctl/commands/RestoreText.h"
#include "ctl/doctor/Finding.h"
#include "ctl/doctor/Restores.h"
#include "ctl/restore/Restore.h"
#include "ctl/restore/Sources.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>
#include <QSettings>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

QString kindText(Source::Kind kind)
{
    return kind == Source::Kind::Backup ? u"backup"_s : kind == Source::Kind::Deletion ? u"deletion"_s : u"folder"_s;
}

void printJson(const Session &session, const QJsonObject &object)
{
    const QByteArray line = compactJson(object);
    print((session.terminal.out ? escapedJson(line) : line) + '\n');
}

QJsonArray objectsOf(const QList<Source> &sources)
{
    QJsonArray all;
    for (const Source &source : sources)
        all.append(QJsonObject{{u"from"_s, source.from},
                               {u"kind"_s, kindText(source.kind)},
                               {u"made"_s, source.made},
                               {u"homeBytes"_s, source.homeBytes},
                               {u"dbBytes"_s, source.dumpBytes},
                               {u"state"_s, !source.state.isEmpty()},
                               {u"checked"_s, source.checked},
                               {u"fault"_s, source.fault}});
    return all;
}

Row rowOf(const Source &source)
{
    return {text(source.from),
            text(kindText(source.kind)),
            time(source.made),
            source.home.isEmpty() ? nothing() : bytes(source.homeBytes),
            source.dump.isEmpty() ? nothing() : bytes(source.dumpBytes),
            source.state.isEmpty() ? text(u"no"_s, Colour::Warning) : text(u"yes"_s),
            !source.fault.isEmpty() ? text(u"damaged"_s, Colour::Bad) : yesNo(source.checked > 0)};
}

// The restores of an account that were cut off, under whatever name.
QList<Journal> inHandOf(const QString &account)
{
    QList<Journal> journals = journalsInHand();
    journals.removeIf(
        [&account](const Journal &journal) { return journal.account != account || !isHalfDone(journal); });
    return journals;
}

void tellInHand(const QList<Journal> &journals)
{
    for (const Journal &journal : journals) {
        note(u"a restore of %1 from %2 was cut off; this goes on with it:"_s.arg(journal.target, journal.from));
        note(u"  "_s + goOnWith(journal));
    }
}

int list(const Session &session, const QString &account, const QList<Source> &sources)
{
    const QList<Journal> inHand = inHandOf(account);
    if (session.options.json) {
        QJsonArray cutOff;
        for (const Journal &journal : inHand)
            cutOff.append(QJsonObject{{u"from"_s, journal.from}, {u"as"_s, journal.target}});
        QJsonObject listed = {{u"ok"_s, true}, {u"account"_s, account}, {u"sources"_s, objectsOf(sources)}};
        if (!cutOff.isEmpty())
            listed.insert(u"cutOff"_s, cutOff);
        printJson(session, listed);
        return kDone;
    }
    QList<Row> rows;
    for (const Source &source : sources)
        rows.append(rowOf(source));
    printTable(session, {u"FROM"_s, u"KIND"_s, u"MADE"_s, u"FILES"_s, u"DATABASE"_s, u"STATE"_s, u"VERIFIED"_s}, rows);
    if (!session.options.plain && !sources.isEmpty())
        printLine(u"\nTo bring it back from the first of them:\n  corvctl account restore %1 --from %2"_s.arg(
            account, sources.first().from));
    tellInHand(inHand);
    return kDone;
}

// The accounts that there are no more, each with the newest of what it can be brought back from.
int listGone(const Session &session, const backup::Config &config)
{
    QStringList gone = accountsKnown(config);
    for (const hosting::User &user : hosting::users()) {
        if (hosting::hasMarker(user.comment))
            gone.removeAll(user.name);
    }
    QJsonArray accounts;
    QList<Row> rows;
    for (const QString &account : std::as_const(gone)) {
        const QList<Source> sources = sourcesOf(config, account);
        if (sources.isEmpty())
            continue;
        accounts.append(QJsonObject{
            {u"username"_s, account}, {u"domain"_s, sources.first().domain}, {u"sources"_s, objectsOf(sources)}});
        // The name of each tells its kind and its day.
        Row row = rowOf(sources.first());
        row.remove(1, 2);
        rows.append(Row{text(account)} + row);
    }
    if (session.options.json) {
        printJson(session, {{u"ok"_s, true}, {u"accounts"_s, accounts}});
        return kDone;
    }
    if (rows.isEmpty()) {
        note(u"no account is gone of which there is a backup or an archive"_s);
        return kDone;
    }
    printTable(session, {u"ACCOUNT"_s, u"FROM"_s, u"FILES"_s, u"DATABASE"_s, u"STATE"_s, u"VERIFIED"_s}, rows);
    if (!session.options.plain)
        printLine(u"\nTo bring one back:\n  corvctl account restore ACCOUNT --from FROM"_s);
    return kDone;
}

void showPlan(const Session &session, const Plan &plan)
{
    if (session.options.json || session.options.plain)
        return;
    const Source &source = plan.source;
    QList<Fact> facts = {
        {u"Account"_s,
         text(plan.target == source.account ? plan.target : u"%1, which was %2"_s.arg(plan.target, source.account))},
        {u"Domain"_s, text(plan.domain)},
        {u"From"_s, text(sourceText(source))},
        {u"Files"_s, source.home.isEmpty() ? text(u"none"_s, Colour::Warning) : bytes(source.homeBytes)},
        {u"Database"_s, source.dump.isEmpty() ? text(u"none"_s, Colour::Warning) : bytes(source.dumpBytes)},
        {u"State"_s, plan.state ? text(stateText(*plan.state)) : text(u"none was written down"_s, Colour::Warning)}};
    printFacts(session, facts);
    if (plan.isWithoutJobs && plan.state && !jobsText(*plan.state).isEmpty())
        note(u"left out, as was asked for: "_s + jobsText(*plan.state));
    if (!plan.state)
        note(
            u"without a state the database and the login get no old password; crontab, jobs, settings and limit are lost"_s);
    if (plan.cutOff)
        note(
            u"a restore of %1 was cut off before; this one goes on with it, and keeps what somebody has changed in the "
            "home since"_s.arg(plan.target));
}

int tell(const Session &session, const Plan &plan, const Restored &done)
{
    if (session.options.json)
        printJson(session, restoredObject(plan, done));
    if (!done.aside.isEmpty() && !session.options.json)
        note(u"what was in the home before is in the folder %1 there"_s.arg(done.aside));
    if (!done.problem.isEmpty()) {
        const std::optional<Journal> journal = readJournal(plan.target);
        return fail(done.status, u"%1 is not restored: %2"_s.arg(plan.target, done.problem),
                    journal ? u"%1 goes on from there; corvctl account delete %2 takes away what is there"_s.arg(
                                  goOnWith(*journal), plan.target)
                            : QString());
    }
    if (!session.options.json) {
        QList<Fact> facts = {{u"Restored"_s, text(plan.target)},
                             {u"Domain"_s, text(plan.domain)},
                             {u"Files"_s, number(done.entries)},
                             {u"Tables"_s, number(done.tables)},
                             {u"Site"_s, text(done.seen, done.isSeenWell ? Colour::Good : Colour::Bad)},
                             {u"Took"_s, span(done.seconds)}};
        if (!done.leftOut.isEmpty())
            facts.append({u"Left out"_s, text(done.leftOut, Colour::Warning)});
        if (!done.password.isEmpty())
            facts.append({u"Database password"_s, whole(done.password)});
        printFacts(session, facts);
    }
    for (const QString &lost : done.lost)
        note(u"not as it was: "_s + lost);
    if (!done.isSeenWell)
        note(u"corvctl doctor tells what is wrong with the site"_s);
    return done.status;
}

// The source that is named. Gives the status to end with where there is none, or they are listed.
std::optional<int> choose(const Session &session, const backup::Config &config, const Given &given, Source *source)
{
    const QString account = given.text("ACCOUNT");
    const QString from = given.text("--from");
    const QList<Source> sources = sourcesOf(config, account);
    if (from.isEmpty() && sources.isEmpty() && inHandOf(account).isEmpty())
        return refuse(session, u"there is neither a backup nor an archive of %1"_s.arg(account),
                      u"--from names a folder that was fetched from elsewhere"_s);
    if (from.isEmpty())
        return list(session, account, sources);
    QString problem;
    const std::optional<Source> found = findSource(config, account, from, &problem);
    if (!found)
        return refuse(session, problem, u"corvctl account restore %1 shows what there is"_s.arg(account));
    *source = *found;
    return {};
}

} // namespace

int restoreOfAccount(Session &session, const Given &given)
{
    const QString account = given.text("ACCOUNT");
    if (const std::optional<int> end = refuseElsewhere(session, u"account restore"_s))
        return *end;
    bareEnvironment();
    const backup::Config config = backup::load(QSettings(settingsPath(session.options), QSettings::IniFormat));
    if (account.isEmpty() &&
        (given.has("--from") || given.has("--as") || given.has("--domain") || given.has("--no-jobs")))
        return fail(kWrongUsage, u"whose account is it? Name the one that is to be brought back"_s);
    if (account.isEmpty())
        return listGone(session, config);
    // A list that ends well would be taken for an account that is back.
    if (!given.has("--from") &&
        (given.has("--as") || given.has("--domain") || given.has("--no-jobs") || session.options.confirm))
        return fail(kWrongUsage, u"restored from what? Name it by --from; without it, what there is is listed"_s);
    Source source;
    if (const std::optional<int> end = choose(session, config, given, &source))
        return *end;
    QString problem;
    QString hint;
    std::optional<Plan> plan = planFor(source, given.text("--as"), given.text("--domain"), &problem, &hint);
    if (!plan)
        return refuse(session, problem, hint);
    plan->isWithoutJobs = given.has("--no-jobs");
    if (const std::optional<int> end = refuseTaken(session, hosting::askedDomain(plan->domain), plan->target, {},
                                                   u"--domain DOMAIN gives it another one"_s))
        return *end;

    showPlan(session, *plan);
    const std::optional<QString> typed = confirmation(
        session,
        u"This makes the account %1 and puts all of that into it. Type %1 to go on:"_s.arg(escaped(plan->target)));
    if (!typed)
        return kWrongUsage;
    if (*typed != plan->target)
        return fail(kWrongUsage, u"that is not the account's name, so nothing was restored"_s);
    return tell(session, *plan, restoreAccount(session, config, *plan, sayer(session, plan->target)));
}

} // namespace corv::ctl
