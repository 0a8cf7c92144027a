#include "common/Account.h"
#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Input.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/commands/Account.h"
#include "ctl/commands/RestoreText.h"
#include "ctl/doctor/Believed.h"
#include "ctl/doctor/Forwards.h"
#include "ctl/move/Believed.h"
#include "ctl/move/Forward.h"
#include "ctl/move/Forwarding.h"
#include "ctl/remote/Remote.h"
#include "ctl/remote/SshLogin.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

void printJson(const Session &session, const QJsonObject &object)
{
    const QByteArray line = compactJson(object);
    print((session.terminal.out ? escapedJson(line) : line) + '\n');
}

int listForwards(const Session &session)
{
    QJsonArray array;
    QList<Row> rows;
    for (const Forward &one : readForwards()) {
        array.append(QJsonObject{{u"account"_s, one.account},
                                 {u"domain"_s, one.domain},
                                 {u"address"_s, one.address},
                                 {u"https"_s, !one.certificate.isEmpty()}});
        if (one.domain.isEmpty())
            rows.append({text(one.account), text(u"edited by hand"_s, Colour::Warning), nothing(), nothing()});
        else
            rows.append({text(one.account), text(one.domain), text(one.address), yesNo(!one.certificate.isEmpty())});
    }
    if (session.options.json)
        printJson(session, {{u"ok"_s, true}, {u"forwards"_s, array}});
    else
        printTable(session, {u"ACCOUNT"_s, u"DOMAIN"_s, u"LED ON TO"_s, u"HTTPS"_s}, rows);
    return kDone;
}

int listBelieved(const Session &session)
{
    QJsonArray array;
    QList<Row> rows;
    for (const Believed &one : readBelieved()) {
        array.append(QJsonObject{{u"account"_s, one.account}, {u"address"_s, one.address}});
        rows.append({text(one.account), text(one.address)});
    }
    if (session.options.json)
        printJson(session, {{u"ok"_s, true}, {u"believed"_s, array}});
    else
        printTable(session, {u"ACCOUNT"_s, u"OLD SERVER"_s}, rows);
    return kDone;
}

// Ends a command whose success is this sentence, or this object.
int settle(const Session &session, const QString &problem, const QString &sentence, QJsonObject object)
{
    if (!problem.isEmpty())
        return refuse(session, problem);
    object.insert(u"ok"_s, true);
    if (session.options.json)
        printJson(session, object);
    else
        printLine(escaped(sentence));
    return kDone;
}

int begin(const Session &session, const QString &account, const QString &address, const Given &given)
{
    if (!given.has("--key-file"))
        return fail(kWrongUsage, u"the key of the new server is needed: --key-file FILE, or - for standard input"_s,
                    u"corvctl account forwarded --key prints it there"_s);
    const std::optional<QByteArray> key = readSource(session, given.text("--key-file"));
    if (!key)
        return kWrongUsage;
    const moving::Forwarded done = moving::forwardAccount(account, address, key->trimmed());
    if (!done.problem.isEmpty())
        return refuse(session, done.problem);
    if (!done.httpsProblem.isEmpty() && !session.options.json)
        note(u"port 443 is not led on: "_s + done.httpsProblem);
    return settle(session, {},
                  u"visitors of %1 and www.%1 are led on to %2%3"_s.arg(
                      done.domain, address, done.onHttps ? u", on ports 80 and 443"_s : u", on port 80"_s),
                  {{u"account"_s, account},
                   {u"domain"_s, done.domain},
                   {u"address"_s, address},
                   {u"https"_s, done.onHttps},
                   {u"httpsProblem"_s, done.httpsProblem},
                   {u"token"_s, QString::fromLatin1(done.token)}});
}

// Both servers' parts, from the new one.
int leadBy(const Session &session, const QString &account, const QString &host, bool isEnd)
{
    if (!hosting::isOurs(account))
        return refuse(session, u"no Corvane account named '%1'"_s.arg(account));
    if (isEnd)
        return settle(session, moving::endOldAddress(session.options, host, account),
                      u"%1 is not led on from %2"_s.arg(account, host), {{u"account"_s, account}});
    const QString domain = hosting::domainOf(account);
    const moving::OldAddress done = moving::leadOldAddress(session.options, host, account, domain);
    if (done.problem.isEmpty() && !done.logProblem.isEmpty())
        note(u"its visitors are logged with the address of %1: %2"_s.arg(host, done.logProblem));
    if (done.problem.isEmpty() && !done.httpsProblem.isEmpty())
        note(u"port 443 of %1 is not led on: %2"_s.arg(host, done.httpsProblem));
    return settle(session, done.problem,
                  u"%1 leads visitors of %2 and www.%2 on to %3%4"_s.arg(
                      host, domain, done.address, done.onHttps ? u", on ports 80 and 443"_s : u", on port 80"_s),
                  {{u"account"_s, account},
                   {u"domain"_s, domain},
                   {u"address"_s, done.address},
                   {u"from"_s, done.from},
                   {u"https"_s, done.onHttps},
                   {u"httpsProblem"_s, done.httpsProblem},
                   {u"logProblem"_s, done.logProblem}});
}

} // namespace

int forwardOfAccount(Session &session, const Given &given)
{
    if (const std::optional<int> end = refuseElsewhere(session, u"account forward"_s))
        return *end;
    const QString account = given.text("ACCOUNT");
    QString address = given.text("ADDRESS");
    if (account.isEmpty())
        return listForwards(session);
    if (!hosting::validUsername(account))
        return fail(kWrongUsage, u"%1 is no name of an account"_s.arg(account));
    if (address.isEmpty())
        return fail(kWrongUsage, u"an address, caller or off is needed behind the account's name"_s);
    if (address == "caller"_L1)
        address = sshLoginAddress();
    if (address.isEmpty())
        return fail(kWrongUsage, u"caller is for a command that comes over SSH"_s);
    bareEnvironment();
    const InterruptGuard guard;
    if (address == "off"_L1)
        return settle(session, moving::endForwarding(account), u"%1 is not led on from here"_s.arg(account),
                      {{u"account"_s, account}});
    return begin(session, account, address, given);
}

int forwardedToAccount(Session &session, const Given &given)
{
    if (const std::optional<int> end = refuseElsewhere(session, u"account forwarded"_s))
        return *end;
    const QString account = given.text("ACCOUNT");
    const QString address = given.text("ADDRESS");
    const QString host = given.text("--by");
    // ssh may need what stands in the environment, such as the agent of the administrator's keys.
    if (!host.isEmpty()) {
        if (const QString problem = hostProblem(host); !problem.isEmpty())
            return fail(kWrongUsage, problem);
        if (account.isEmpty() || !(address.isEmpty() || address == "off"_L1))
            return fail(kWrongUsage, u"--by goes with an account's name, and off behind it or nothing"_s);
        return leadBy(session, account, host, !address.isEmpty());
    }
    bareEnvironment();
    const InterruptGuard guard;
    if (given.has("--key")) {
        QString problem;
        const QByteArray key = moving::believedKey(&problem);
        return settle(session, problem, QString::fromLatin1(key), {{u"key"_s, QString::fromLatin1(key)}});
    }
    if (account.isEmpty())
        return listBelieved(session);
    if (address.isEmpty())
        return fail(kWrongUsage, u"an address or off is needed behind the account's name"_s);
    if (address == "off"_L1)
        return settle(session, moving::believeNoMore(account), u"no server is believed for %1"_s.arg(account),
                      {{u"account"_s, account}});
    return settle(session, moving::believe(account, address),
                  u"what %1 leads on to here is logged with the visitors' own addresses"_s.arg(address),
                  {{u"account"_s, account}, {u"address"_s, address}});
}

} // namespace corv::ctl
