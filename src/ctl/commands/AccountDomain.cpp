#include "ctl/commands/Account.h"

#include "common/Account.h"
#include "common/AskedDomain.h"
#include "common/Environment.h"
#include "common/Json.h"
#include "common/TimedRun.h"
#include "ctl/Command.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/commands/AccountSites.h"
#include "ctl/doctor/AccountFacts.h"
#include "ctl/doctor/Facts.h"
#include "ctl/remote/Relay.h"

#include <QJsonObject>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 60'000;
constexpr int kThereSeconds = 3600; // the agent over there may be busy

// The comment with another domain in it; whatever its user has written behind that stays.
QString withDomain(const QString &comment, const QString &domain)
{
    const QString rest = comment.section(u',', 2);
    return hosting::accountComment(domain) + (rest.isEmpty() ? QString() : u',' + rest);
}

// Returns why the comment could not be set, empty when it was.
QString setComment(const QString &account, const QString &comment)
{
    const Outcome outcome = runWithin(kToolMs, u"usermod"_s, {u"--comment"_s, comment, account});
    if (outcome.succeeded)
        return {};
    const QString errors = QString::fromUtf8(outcome.errors).simplified();
    return outcome.finished ? u"usermod failed: "_s + errors : u"usermod: cannot start, or took too long"_s;
}

// Why the account cannot have the domain, after it was said; nothing when it can.
std::optional<int> refuseDomain(const Session &session, const QString &name, const QString &old, const QString &domain,
                                const QString &state)
{
    if (domain == old)
        return refuse(session, u"%1 has that domain already"_s.arg(name));
    if (state != "on-line"_L1 && state != "suspended"_L1)
        return refuse(session, u"%1 is neither on-line nor suspended, but: %2"_s.arg(name, state),
                      u"corvctl doctor tells what is wrong with it"_s);
    return refuseTaken(session, hosting::askedDomain(domain), name, {});
}

} // namespace

// The domain stands in the user database, and the agent writes the site anew from there when it resumes or suspends an
// account that is resumed or suspended already.
int changeDomain(Session &session, const Given &given)
{
    const QString name = given.text("ACCOUNT");
    const QString domain = hosting::normalDomain(given.text("DOMAIN"));
    if (session.options.printOnly)
        return fail(kWrongUsage, u"the domain is changed in the user database, not by one request"_s);
    if (domain.isEmpty())
        return refuse(session, u"that is not a valid domain name"_s);
    if (const std::optional<int> end = refuseLong(session, given.text("DOMAIN")))
        return *end;
    if (!hosting::validUsername(name))
        return refuseNoAccount(session, name);
    // As it was typed: what is no part of a name is taken off over there.
    if (!session.options.hosts.empty())
        return relayThere(session, {u"account"_s, u"domain"_s, name, given.text("DOMAIN")}, kThereSeconds);
    if (::geteuid() != 0)
        return fail(kWrongUsage, u"the user database can be changed by root alone"_s,
                    u"run it as root: sudo corvctl account domain %1 %2"_s.arg(name, hosting::askedDomain(domain)));

    cleanEnvironment();
    hosting::User user;
    for (const hosting::User &one : hosting::users()) {
        if (one.name == name && hosting::hasMarker(one.comment))
            user = one;
    }
    if (user.name.isEmpty())
        return refuseNoAccount(session, name);
    const QString old = hosting::domainIn(user.comment);
    const QString state = stateOf(readAccount(user, {}));
    if (const std::optional<int> end = refuseDomain(session, name, old, domain, state))
        return *end;

    // An agent that cannot be asked leaves nothing half done.
    if (const Answer ping = ask(session, u"ping"_s); !ping.ok())
        return settled(session, ping).value_or(kRefused);

    // Until both halves are done, or undone, no signal ends this.
    const InterruptGuard guard;
    if (const QString problem = setComment(name, withDomain(user.comment, domain)); !problem.isEmpty())
        return refuse(session, problem);
    const QString command = state == "suspended"_L1 ? u"hosting.suspend"_s : u"hosting.resume"_s;
    const Answer answer = ask(session, command, accountIn(given));
    if (!answer.ok()) {
        const QString problem = setComment(name, user.comment);
        const Answer undone = ask(session, command, accountIn(given));
        if (!problem.isEmpty() || !undone.ok())
            note(u"%1 could not be put back as it was; corvctl doctor tells what is left to do"_s.arg(name));
        else
            note(u"%1 has its old domain, %2, again"_s.arg(name, old));
        return settled(session, answer).value_or(kRefused);
    }

    note(u"the logs of %1 stay where they are: /var/log/apache2/%1-*.log"_s.arg(old));
    for (const QString &site : findSitesBeside(session, name))
        note(u"the site %1 is not the agent's: its names, and its certificate, are still for %2"_s.arg(site, old));
    return settledWith(session, answer, u"%1 is at %2 now"_s.arg(name, domain));
}

} // namespace corv::ctl
