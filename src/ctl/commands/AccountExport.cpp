#include "common/Account.h"
#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/commands/Account.h"
#include "ctl/commands/RestoreText.h"
#include "ctl/restore/Export.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QDir>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

int exportOfAccount(Session &session, const Given &given)
{
    const QString account = given.text("ACCOUNT");
    if (const std::optional<int> end = refuseElsewhere(session, u"account export"_s))
        return *end;
    if (!hosting::validUsername(account) || !hosting::isOurs(account))
        return refuse(session, u"no Corvane account named '%1'"_s.arg(account),
                      u"corvctl account list shows the accounts"_s);
    bareEnvironment();
    const QString folder = QDir::cleanPath(QDir::current().absoluteFilePath(given.text("FOLDER")));
    const Exported done = exportAccount(account, folder);
    if (!done.problem.isEmpty())
        return refuse(session, u"%1 is not saved: %2"_s.arg(account, done.problem));
    for (const QString &word : done.notes)
        note(word);
    if (session.options.json) {
        const QByteArray line = compactJson({{u"ok"_s, true},
                                             {u"account"_s, account},
                                             {u"folder"_s, folder},
                                             {u"homeBytes"_s, done.homeBytes},
                                             {u"dbBytes"_s, done.dumpBytes}});
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return kDone;
    }
    printFacts(session, {{u"Saved"_s, text(account)},
                         {u"Folder"_s, whole(folder)},
                         {u"Files"_s, bytes(done.homeBytes)},
                         {u"Database"_s, bytes(done.dumpBytes)}});
    return kDone;
}

} // namespace corv::ctl
