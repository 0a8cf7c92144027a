#include "ctl/doctor/AtWork.h"

#include "common/Account.h"
#include "common/InHand.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

QString accountAtWork()
{
    const std::optional<InHand> request = readInHand(kInHandPath);
    return request && hosting::validUsername(request->account) ? request->account : QString();
}

void leaveOut(const QString &account, NamedParts *parts, std::optional<Databases> *databases)
{
    const auto isItsFile = [&](const QString &path) { return accountOfFile(path.section(u'/', -1)) == account; };
    parts->sites.removeIf(isItsFile);
    parts->pools.removeIf(isItsFile);
    parts->ownerlessHomes.removeAll(hosting::homePath(account));
    if (!*databases)
        return;
    // With the two that a restore works with.
    const QStringList names = {account, account + u"__restore"_s, account + u"__old"_s};
    (*databases)->databases.removeIf([&](const Database &database) { return names.contains(database.name); });
    (*databases)->roles.removeIf([&](const Role &role) { return role.name == account; });
}

} // namespace corv::ctl
