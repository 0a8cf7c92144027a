#include "ctl/commands/Account.h"

#include "common/Account.h"
#include "ctl/Command.h"
#include "ctl/Input.h"
#include "ctl/Keys.h"
#include "ctl/Session.h"
#include "ctl/commands/AccountSites.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qint64 kMebibyte = 1'048'576;

const Parameter kAccount = {"ACCOUNT", "the account's name", Kind::Required, Names::Account};

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

QJsonObject accountIn(const Given &given)
{
    return {{u"username"_s, given.text("ACCOUNT")}};
}

bool addSource(const Session &session, const QString &path, const QString &member, QJsonObject *args)
{
    const std::optional<QByteArray> content = readSource(session, path);
    if (!content)
        return false;
    args->insert(member, QString::fromUtf8(*content).trimmed());
    return true;
}

Command accountCommand()
{
    return {
        "account",
        "Hosting accounts",
        {},
        nullptr,
        {
            {"create",
             "Make an account and print its database's password, which is told here only",
             {{"ACCOUNT", "its name: 3 to 16 small letters and digits, a letter first"},
              {"DOMAIN", "the site's domain"},
              {"--key-file", "an SSH public key that lets the account's user in; - for standard input", Kind::Value,
               Names::File},
              {"--force", "take a domain that something on the server answers to already", Kind::Flag},
              {"--clear", "take away what a creation or deletion of that name has left, showing each command",
               Kind::Flag}},
             createAccount},
            {"list",
             "List the accounts of this server with their state and what they use",
             {{"--sort",
               "what the list is sorted by; the name without this",
               Kind::Value,
               Names::Nothing,
               {"name", "domain", "state", "used"}}},
             listAccounts},
            {"show", "Show all that an account has", {kAccount}, showAccount},
            {"domain", "Give an account another domain", {kAccount, {"DOMAIN", "its new domain"}}, changeDomain},
            {"suspend", "Take an account off-line", {kAccount}, suspendAccount},
            {"resume",
             "Put a suspended account back on-line",
             {kAccount,
              {"--left", "also one that has left for another server, which keeps what it has of it", Kind::Flag}},
             resumeAccount},
            {"delete",
             "Archive an account, then delete it with all that it has; asks for its name",
             {kAccount,
              {"--force", "lift what keeps its database from being dumped or dropped, showing each statement",
               Kind::Flag}},
             deleteAccount},
            {"https",
             "Switch HTTPS for an account on, as these options say and no others, or off",
             {kAccount,
              {"on|off", "whether its site shall be on HTTPS", Kind::Required, Names::Nothing, {"on", "off"}},
              {"--redirect", "send visitors of port 80 there, once it has a certificate", Kind::Flag},
              {"--hsts", "have browsers come by HTTPS alone from now on, for two years", Kind::Flag},
              {"--no-www", "leave the www name out", Kind::Flag},
              {"--cert", "use this certificate with its chain (PEM) instead of getting one", Kind::Value, Names::File},
              {"--key", "the certificate's key (PEM)", Kind::Value, Names::File}},
             accountHttps},
            {"publish",
             "Let the web server reach an account's site as its creation did: home, public_html and what is in it",
             {kAccount},
             publishAccount},
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
            {"export",
             "Save one account as it is: files, database and state in a new folder, as account restore takes it",
             {kAccount, {"FOLDER", "the folder to make; root's alone", Kind::Required, Names::File}},
             exportOfAccount},
            {"move",
             "Move an account from another server to this one, off-line for some seconds; asks for its name",
             {{"ACCOUNT", "its name there; left out with --all"},
              {"HOST", "the server that it is to come from, as ssh takes it", Kind::Optional},
              {"--all", "all accounts of that server, each by a move of its own", Kind::Flag},
              {"--parallel", "with --all: how many at a time, 1 to 16; 2 without this", Kind::Value},
              {"--dry-run", "only tell what the move would meet", Kind::Flag},
              {"--rehearse", "bring files and database here, while it is served there, and stop before the switch",
               Kind::Flag},
              {"--back", "an account that left this server for HOST, with all that has changed there", Kind::Flag},
              {"--end", "of a move that is done: let the old address lead here no more", Kind::Flag}},
             moveOfAccount},
            {"forward",
             "Lead visitors of an account that has moved on to its new server; lists those without ACCOUNT",
             {{"ACCOUNT", "its name; it is suspended here", Kind::Optional, Names::Account},
              {"ADDRESS", "the new server's, caller for the one that this comes from over SSH, or off", Kind::Optional},
              {"--key-file", "the new server's key, as account forwarded --key prints it; - for standard input",
               Kind::Value, Names::File}},
             forwardOfAccount},
            {"forwarded",
             "Take visitors' addresses from the old server of an account that moved here; lists those without it",
             {{"ACCOUNT", "its name", Kind::Optional, Names::Account},
              {"ADDRESS", "the old server's, as it comes here, or off", Kind::Optional},
              {"--by", "the old server, as ssh takes it: have it lead the account's names on, or end that, too",
               Kind::Value},
              {"--key", "print the key that the old server needs, and which root alone may see", Kind::Flag}},
             forwardedToAccount},
            {"restore",
             "Bring back an account that is gone, with its passwords, jobs and settings; asks for its name",
             {{"ACCOUNT", "the name that it had; lists those that are gone without this", Kind::Optional},
              {"--from", "a backup, the archives of its deletion, or a folder; lists them without this", Kind::Value,
               Names::File},
              {"--as", "another name for it", Kind::Value},
              {"--domain", "another domain for it", Kind::Value},
              {"--no-jobs", "leave out its crontab, its jobs of at and its services without a login", Kind::Flag}},
             restoreOfAccount},
            {"state",
             "Show of whom there is a state: passwords' hashes, jobs and settings, which no archive holds",
             {{"--write", "write the states down anew, as it is done before each backup and at each deletion",
               Kind::Flag},
              {"--place", "put them into the newest backup, as it is done after each", Kind::Flag}},
             accountState},
            {"usage", "Tell how much disk space each account uses", {}, usage},
        }};
}

} // namespace corv::ctl
