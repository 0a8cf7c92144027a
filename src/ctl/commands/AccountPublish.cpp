#include "common/Account.h"
#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/commands/Account.h"
#include "ctl/home/Reach.h"
#include "ctl/screen/Escape.h"

#include <QFile>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

int publishAccount(Session &session, const Given &given)
{
    const QString account = given.text("ACCOUNT");
    if (session.options.printOnly)
        return fail(kWrongUsage, u"nothing is asked of the agent for that: it is done with the account's own rights"_s);
    if (!session.options.hosts.empty()) {
        return fail(kWrongUsage, u"homes are worked in on the server itself, not from here"_s,
                    u"ssh %1 corvctl account publish ..."_s.arg(QString::fromStdString(session.options.hosts.front())));
    }
    if (::geteuid() != 0) {
        return fail(kNoConnection, u"that takes root, to work with the account's rights"_s,
                    u"run it as root: sudo corvctl account publish ..."_s);
    }
    const std::optional<Rights> rights = accountRights(account);
    if (!hosting::validUsername(account) || !hosting::isOurs(account) || !rights)
        return refuseNoAccount(session, account);

    int count = 0;
    if (const QString problem = openToWebServer(*rights, QFile::encodeName(hosting::homePath(account)), &count);
        !problem.isEmpty())
        return refuse(session, problem);
    if (session.options.json)
        print(QByteArray("{\"changed\":") + QByteArray::number(count) + ",\"ok\":true}\n");
    else if (!session.options.plain)
        printLine(u"the web server reaches the site of %1; changed in public_html: %2"_s.arg(account).arg(count));
    return kDone;
}

} // namespace corv::ctl
