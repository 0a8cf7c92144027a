#include "ctl/commands/Account.h"

#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/commands/AccountSites.h"
#include "ctl/screen/Table.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

int createAccount(Session &session, const Given &given)
{
    QJsonObject args = accountIn(given);
    args.insert(u"domain"_s, given.text("DOMAIN"));
    if (given.has("--key-file") && !addSource(session, given.text("--key-file"), u"sshKey"_s, &args))
        return kWrongUsage;
    if (const std::optional<int> end =
            refuseTaken(session, given.text("DOMAIN"), given.text("ACCOUNT"), given.has("--force")))
        return *end;

    const Answer answer = ask(session, u"hosting.create"_s, args);
    if (const std::optional<int> end = settled(session, answer))
        return *end;

    const QString php = answer.reply.value("phpVersion"_L1).toString();
    // The password is told here and never again.
    printFacts(session, {{u"Account"_s, text(given.text("ACCOUNT"))},
                         {u"Domain"_s, text(answer.reply.value("domain"_L1).toString())},
                         {u"PHP"_s, text(php.isEmpty() ? u"none"_s : php)},
                         {u"Access log"_s, text(answer.reply.value("accessLog"_L1).toString())},
                         {u"Database"_s, text(given.text("ACCOUNT"))},
                         {u"Database password"_s, text(answer.reply.value("dbPassword"_L1).toString())}});
    return kDone;
}

} // namespace corv::ctl
