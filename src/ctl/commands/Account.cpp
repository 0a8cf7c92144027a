#include "ctl/Command.h"
#include "ctl/Input.h"
#include "ctl/Keys.h"
#include "ctl/Session.h"
#include "ctl/doctor/Facts.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include "common/Account.h"
#include "common/Environment.h"
#include "common/Json.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qint64 kMebibyte = 1'048'576;
// How long the list of another server's accounts is waited for.
constexpr int kListSeconds = 60;

const Parameter kAccount = {"ACCOUNT", "the account's name", Kind::Required, Names::Account};

QJsonObject accountIn(const Given &given)
{
    return {{u"username"_s, given.text("ACCOUNT")}};
}

// Adds what is read from a file or standard input to a request. False when it cannot be read.
bool addSource(const Session &session, const QString &path, const QString &member, QJsonObject *args)
{
    const std::optional<QByteArray> content = readSource(session, path);
    if (!content)
        return false;
    args->insert(member, QString::fromUtf8(*content).trimmed());
    return true;
}

int create(Session &session, const Given &given)
{
    QJsonObject args = accountIn(given);
    args.insert(u"domain"_s, given.text("DOMAIN"));
    if (given.has("--key-file") && !addSource(session, given.text("--key-file"), u"sshKey"_s, &args))
        return kWrongUsage;

    const Answer answer = ask(session, u"hosting.create"_s, args);
    if (const std::optional<int> end = settled(session, answer))
        return *end;

    const QString php = answer.reply.value("phpVersion"_L1).toString();
    // The password is told here and never again.
    printFacts(session, {{u"Account"_s, text(given.text("ACCOUNT"))},
                         {u"Domain"_s, text(answer.reply.value("domain"_L1).toString())},
                         {u"PHP"_s, text(php.isEmpty() ? u"none"_s : php)},
                         {u"Access log"_s, whole(answer.reply.value("accessLog"_L1).toString())},
                         {u"Database"_s, text(given.text("ACCOUNT"))},
                         {u"Database password"_s, whole(answer.reply.value("dbPassword"_L1).toString())}});
    return kDone;
}

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

int list(Session &session, const Given &)
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

int suspend(Session &session, const Given &given)
{
    return settledWith(session, ask(session, u"hosting.suspend"_s, accountIn(given)),
                       u"%1 is suspended"_s.arg(given.text("ACCOUNT")));
}

int resume(Session &session, const Given &given)
{
    return settledWith(session, ask(session, u"hosting.resume"_s, accountIn(given)),
                       u"%1 is on-line again"_s.arg(given.text("ACCOUNT")));
}

// What keeps the account's database from being dumped, without which it is not deleted. Nothing where this server
// cannot be asked: the agent then says what is wrong.
QList<Obstacle> findObstacles(const Session &session, const QString &name)
{
    if (session.options.printOnly || !session.options.hosts.empty() || ::geteuid() != 0 ||
        !hosting::validUsername(name))
        return {};
    cleanEnvironment();
    QString problem;
    const std::optional<Databases> databases = readDatabases(&problem);
    const Database *const database = databases ? findDatabase(*databases, name) : nullptr;
    return database ? obstaclesOf(*database) : QList<Obstacle>();
}

// Lifts them where that is wanted, and shows how in any case. Gives the status to end with where one stays.
std::optional<int> liftObstacles(const QList<Obstacle> &obstacles, bool isWanted)
{
    for (const Obstacle &obstacle : obstacles) {
        note(obstacle.what);
        note(u"  "_s + obstacle.statement);
        if (!isWanted)
            continue;
        if (const Outcome outcome = runStatements({obstacle.statement}); !outcome.succeeded)
            return fail(kRefused, QString::fromUtf8(outcome.errors).simplified());
    }
    if (!obstacles.isEmpty() && !isWanted)
        return fail(kRefused, u"the account cannot be deleted as it is, so nothing was deleted"_s,
                    u"--force has these statements run before"_s);
    return {};
}

int remove(Session &session, const Given &given)
{
    const QString name = given.text("ACCOUNT");
    const std::optional<QString> typed = confirmation(
        session, u"This deletes the account, its files and its database. Type %1 to go on:"_s.arg(escaped(name)));
    if (!typed)
        return kWrongUsage;
    if (*typed != name)
        return fail(kWrongUsage, u"that is not the account's name, so nothing was deleted"_s);
    if (const std::optional<int> end = liftObstacles(findObstacles(session, name), given.has("--force")))
        return *end;

    const Answer answer = ask(session, u"hosting.delete"_s, {{u"username"_s, name}, {u"confirm"_s, *typed}});
    const QString archive = answer.reply.value("archive"_L1).toString();
    if (const std::optional<int> end = settled(session, answer)) {
        if (!archive.isEmpty() && !session.options.json)
            note(u"the archives are at %1"_s.arg(archive));
        return *end;
    }
    printFacts(session, {{u"Deleted"_s, text(name)}, {u"Archives"_s, whole(archive)}});
    return kDone;
}

int showKeys(Session &session, const Given &given)
{
    const Answer answer = ask(session, u"hosting.getKeys"_s, accountIn(given));
    if (const std::optional<int> end = settled(session, answer))
        return *end;

    const QString keys = answer.reply.value("keys"_L1).toString();
    if (given.has("--text")) {
        print((session.terminal.out ? escapedLines(keys) : keys).toUtf8());
        return kDone;
    }
    QList<Row> rows;
    for (const PublicKey &key : parseKeys(keys))
        rows.append({text(key.comment), text(key.type), text(key.fingerprint)});
    printTable(session, {u"COMMENT"_s, u"TYPE"_s, u"FINGERPRINT"_s}, rows);
    return kDone;
}

int keys(Session &session, const Given &given)
{
    if (!given.has("--set"))
        return showKeys(session, given);

    QJsonObject args = accountIn(given);
    if (!addSource(session, given.text("--set"), u"keys"_s, &args))
        return kWrongUsage;
    const Answer answer = ask(session, u"hosting.setKeys"_s, args);
    return settledWith(session, answer,
                       u"%1 has %2 key(s) now"_s.arg(given.text("ACCOUNT"),
                                                     QString::number(answer.reply.value("count"_L1).toInteger())));
}

// The password alone, so that a script can take it.
int password(Session &session, const Given &given)
{
    const Answer answer = ask(session, u"hosting.resetDbPassword"_s, accountIn(given));
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    printLine(escaped(answer.reply.value("dbPassword"_L1).toString()));
    return kDone;
}

int readOnly(Session &session, const Given &given)
{
    const bool on = given.text("on|off") == "on"_L1;
    QJsonObject args = accountIn(given);
    args.insert(u"readOnly"_s, on);
    return settledWith(
        session, ask(session, u"hosting.dbReadOnly"_s, args),
        u"the database of %1 is %2 now"_s.arg(given.text("ACCOUNT"), on ? u"read-only"_s : u"writable"_s));
}

// The size in MiB: a whole number with M, G or T behind it. Nothing for anything else.
std::optional<qint64> mebibytes(const QString &size)
{
    if (size == "none"_L1)
        return 0;
    const qsizetype unit = u"MGT"_s.indexOf(size.right(1).toUpper());
    bool valid = false;
    const qint64 count = size.chopped(size.isEmpty() ? 0 : 1).toLongLong(&valid);
    // Far over what the agent takes, and far from what overflows.
    if (unit < 0 || !valid || count < 1 || count > 1'000'000'000)
        return {};
    return count * (unit == 0 ? 1 : unit == 1 ? 1024 : kMebibyte);
}

int limit(Session &session, const Given &given)
{
    const std::optional<qint64> size = mebibytes(given.text("SIZE"));
    if (!size)
        return fail(kWrongUsage, u"SIZE is a whole number with M, G or T behind it, such as 500M or 2G, or none"_s);
    QJsonObject args = accountIn(given);
    args.insert(u"mb"_s, *size);
    const QString name = given.text("ACCOUNT");
    return settledWith(session, ask(session, u"quota.set"_s, args),
                       *size == 0 ? u"%1 has no limit now"_s.arg(name)
                                  : u"%1 may use %2 now"_s.arg(name, humanBytes(*size * kMebibyte)));
}

int usage(Session &session, const Given &)
{
    const Answer answer = ask(session, u"hosting.usage"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    QList<Row> rows;
    const QJsonObject used = answer.reply.value("usage"_L1).toObject();
    for (auto one = used.begin(); one != used.end(); ++one)
        rows.append({text(one.key()), bytes(one.value().toInteger())});
    printTable(session, {u"ACCOUNT"_s, u"USED"_s}, rows);
    return kDone;
}

} // namespace

Command accountCommand()
{
    return {"account",
            "Hosting accounts",
            {},
            nullptr,
            {
                {"create",
                 "Make an account and print its database's password, which is told here only",
                 {{"ACCOUNT", "its name: 3 to 16 small letters and digits, a letter first"},
                  {"DOMAIN", "the site's domain"},
                  {"--key-file", "an SSH public key that lets the account's user in; - for standard input", Kind::Value,
                   Names::File}},
                 create},
                {"list", "List the accounts of this server", {}, list},
                {"suspend", "Take an account off-line", {kAccount}, suspend},
                {"resume", "Put a suspended account back on-line", {kAccount}, resume},
                {"delete",
                 "Archive an account, then delete it with all that it has; asks for its name",
                 {kAccount,
                  {"--force", "lift what keeps its database from being dumped or dropped, showing each statement",
                   Kind::Flag}},
                 remove},
                {"keys",
                 "Show or replace an account's SSH public keys",
                 {kAccount,
                  {"--set", "replace all keys by those in the file, one a line; - for standard input", Kind::Value,
                   Names::File},
                  {"--text", "show the text as it is", Kind::Flag}},
                 keys},
                {"password",
                 "Give an account's database a new password and print it, which is told here only",
                 {kAccount},
                 password},
                {"read-only",
                 "Make an account's database read-only, or writable again",
                 {kAccount, {"on|off", "whether it shall be read-only", Kind::Required, Names::Nothing, {"on", "off"}}},
                 readOnly},
                {"limit",
                 "Set or lift an account's hard disk limit",
                 {kAccount, {"SIZE", "such as 500M, 2G or 1T (powers of 1024); none lifts the limit"}},
                 limit},
                {"usage", "Tell how much disk space each account uses", {}, usage},
            }};
}

} // namespace corv::ctl
