#include "ctl/doctor/Restores.h"

#include "ctl/Turn.h"
#include "ctl/doctor/Remainders.h"
#include "ctl/offsite/State.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

QList<CutOffRestore> readCutOff()
{
    if (isTurnTaken(kRestoreLock))
        return {};
    QList<CutOffRestore> found;
    const QList<hosting::User> users = hosting::users();
    for (const Journal &journal : journalsInHand()) {
        const bool hasUser = std::any_of(users.cbegin(), users.cend(),
                                         [&journal](const hosting::User &user) { return user.name == journal.target; });
        found.append({journal, hasUser, isHalfDone(journal)});
    }
    return found;
}

QList<Finding> checkCutOff(const QList<CutOffRestore> &restores)
{
    QList<Finding> findings;
    for (const CutOffRestore &restore : restores) {
        const Journal &journal = restore.journal;
        const QString drop = u"rm "_s + journalOf(journal.target);
        if (!restore.isHalfDone)
            findings.append({Level::Note,
                             u"a restore of %1 was cut off, and there is another user %1 now"_s.arg(journal.target),
                             drop});
        else if (restore.hasUser)
            findings.append(
                {Level::Fault,
                 u"a restore of %1 from %2 was cut off and is half done; %3 gives it up, and %4 keeps the "
                 "account as it is"_s.arg(journal.target, journal.from, finishDeletion(journal.target, false), drop),
                 goOnWith(journal)});
        else
            findings.append({Level::Note,
                             u"a restore of %1 from %2 was cut off before the account was made; %3 gives it up"_s.arg(
                                 journal.target, journal.from, drop),
                             goOnWith(journal)});
    }
    return findings;
}

QStringList leftDrills(const QList<hosting::User> &accounts)
{
    QStringList names;
    for (const hosting::User &account : accounts) {
        if (isOfDrill(account.name, hosting::domainIn(account.comment)))
            names.append(account.name);
    }
    return names.isEmpty() || isTurnTaken(kOffsiteLock) ? QStringList() : names;
}

QList<Finding> checkLeftDrills(const QStringList &names)
{
    QList<Finding> findings;
    for (const QString &name : names)
        findings.append({Level::Fault,
                         u"the account %1 is left of a drill: it is a copy of another one, and is served; "
                         "corvctl offsite drill takes it away as well"_s.arg(name),
                         finishDeletion(name, false)});
    return findings;
}

QString goOnWith(const Journal &journal)
{
    QString command = u"corvctl account restore %1 --from %2"_s.arg(journal.account, shellWord(journal.from));
    if (journal.target != journal.account)
        command += u" --as "_s + journal.target;
    return journal.isWithoutJobs ? command + u" --no-jobs"_s : command;
}

} // namespace corv::ctl
