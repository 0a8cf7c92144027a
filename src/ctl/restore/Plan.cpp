#include "common/Account.h"
#include "ctl/restore/Restore.h"

#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Why an account that is there cannot be given a domain by going on; empty where that is not asked for.
QString domainProblem(const Plan &plan, const QString &wanted)
{
    const QString has = hosting::domainOf(plan.target);
    const bool isOther = !wanted.isEmpty() && hosting::normalDomain(wanted) != has;
    return isOther ? u"the account %1 is there already, half done, with the domain %2"_s.arg(plan.target, has)
                   : QString();
}

} // namespace

qint64 uidOf(const QString &account)
{
    const passwd *const user = ::getpwnam(account.toLatin1().constData());
    return user ? static_cast<qint64>(user->pw_uid) : 0;
}

QString jobsText(const AccountState &state)
{
    QStringList parts;
    if (!state.crontab.isEmpty())
        parts.append(u"crontab"_s);
    if (!state.jobs.isEmpty())
        parts.append(u"%1 job(s) of at"_s.arg(state.jobs.size()));
    if (state.lingers)
        parts.append(u"services without a login"_s);
    return parts.join(", "_L1);
}

std::optional<Plan> planFor(const Source &source, const QString &wantedName, const QString &wantedDomain,
                            QString *problem, QString *hint)
{
    Plan plan;
    plan.source = source;
    plan.target = wantedName.isEmpty() ? source.account : wantedName;
    plan.state = source.state.isEmpty() ? std::nullopt : readState(source.state, source.account);
    if (!hosting::validUsername(plan.target)) {
        *problem = u"%1 is no name for an account"_s.arg(plan.target);
        *hint = u"3 to 16 lowercase letters and digits, starting with a letter (not a reserved name)"_s;
        return {};
    }
    const std::optional<Journal> journal = readJournal(plan.target);
    if (journal && isHalfDone(*journal) && journal->account == source.account)
        plan.cutOff = journal;

    plan.domain = hosting::normalDomain(wantedDomain);
    for (const QString &domain :
         {plan.cutOff ? plan.cutOff->domain : QString(), plan.state ? plan.state->domain : QString(), source.domain}) {
        if (plan.domain.isEmpty() && wantedDomain.isEmpty())
            plan.domain = hosting::isStoredDomain(domain) ? domain : hosting::normalDomain(domain);
    }
    if (plan.domain.isEmpty()) {
        *problem = wantedDomain.isEmpty() ? u"nothing tells which domain %1 had"_s.arg(source.account)
                                          : u"that is not a valid domain name"_s;
        *hint = u"--domain gives it one"_s;
        return {};
    }
    if (plan.cutOff && uidOf(plan.target) != 0) {
        *problem = domainProblem(plan, wantedDomain);
        if (!problem->isEmpty()) {
            *hint = u"go on without --domain; corvctl account domain %1 DOMAIN gives it another one then"_s.arg(
                plan.target);
            return {};
        }
        plan.domain = hosting::domainOf(plan.target);
        return plan;
    }
    if (uidOf(plan.target) != 0) {
        *problem = u"there is a user %1 on this server"_s.arg(plan.target);
        *hint =
            u"--as NAME brings it back under another name; corvctl backup restore brings back files or a database"_s;
        return {};
    }
    return plan;
}

} // namespace corv::ctl
