#include "ctl/move/Back.h"

#include "common/Account.h"
#include "common/Psql.h"
#include "common/Run.h"
#include "ctl/Session.h"
#include "ctl/doctor/Forwards.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/move/Forwarding.h"
#include "ctl/remote/Remote.h"
#include "ctl/restore/Restore.h"

#include <QDateTime>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kThereSeconds = 180;
constexpr qsizetype kLongestQueue = 1'048'576;

// The numbers of the jobs that at has of a user, in what atq prints to root: number, time, queue, user.
QStringList jobsOf(const QByteArray &queue, const QString &account)
{
    QStringList numbers;
    for (const QByteArray &line : queue.split('\n')) {
        const QList<QByteArray> words = line.simplified().split(' ');
        bool isNumber = false;
        (void)words.first().toUInt(&isNumber);
        if (isNumber && words.size() > 1 && words.last() == account.toUtf8())
            numbers.append(QString::fromLatin1(words.first()));
    }
    return numbers;
}

bool isSuspendedHere(const QString &account)
{
    const QList<AccountSite> all = readAccountSites();
    return std::any_of(all.cbegin(), all.cend(),
                       [&](const AccountSite &one) { return one.name == account && one.suspended; });
}

Check accountCheck(const There &there, const Record &record)
{
    const auto inTheWay = [](const QString &text) { return Check{u"Account"_s, text, Check::Level::InTheWay}; };
    if (!isSuspendedHere(record.account))
        return inTheWay(u"%1 is on-line here"_s.arg(record.account));
    if (there.state.domain != record.domain)
        return inTheWay(u"it has the domain %1 here and another there"_s.arg(record.domain));
    return {u"Account"_s, u"%1, which left this server and is suspended here"_s.arg(record.account)};
}

} // namespace

Record recordOfBack(const QString &account, const QString &host, QString *problem)
{
    Record record;
    record.account = account;
    record.host = host;
    record.domain = hosting::domainOf(account);
    record.uid = uidOf(account);
    record.begun = QDateTime::currentSecsSinceEpoch();
    record.isBack = true;
    if (!hasLeft(account))
        *problem = u"%1 has not left this server"_s.arg(account);
    else if (record.uid == 0 || !hosting::isOurs(account))
        *problem = u"%1 has left this server and was deleted here since"_s.arg(account);
    return record;
}

QList<Check> checksOfBack(const There &there, const Here &here, const Record &record)
{
    Here others = here;
    if (others.domainHolder == u"the site "_s + forwardSite(record.account))
        others.domainHolder.clear();
    if (others.uidHolder == record.account)
        others.uidHolder.clear();
    QList<Check> checks = checksOf(there, others);
    // It has its number here, whatever it has there.
    checks.removeIf([](const Check &check) { return check.about == "Account"_L1 || check.about == "User id"_L1; });
    checks.prepend(accountCheck(there, record));
    return checks;
}

QString letRoleIn(const QString &account, bool isAllowed)
{
    if (!hosting::validUsername(account))
        return u"%1 is no name of an account"_s.arg(account);
    const QString script =
        isAllowed ? u"ALTER ROLE \"%1\" LOGIN;\nALTER ROLE \"%1\" RESET ALL;\n"_s : u"ALTER ROLE \"%1\" NOLOGIN;\n"_s;
    return hosting::psql(script.arg(account).toLatin1());
}

void clearJobs(const QString &account)
{
    QByteArray queue;
    hosting::Streams streams;
    streams.output = &queue;
    streams.maxOutput = kLongestQueue;
    (void)hosting::runWith(u"atq"_s, {}, streams, {}); // at may not be installed: nobody has jobs of it then
    for (const QString &job : jobsOf(queue, account))
        (void)hosting::run(u"atrm"_s, {job});
    // These two fail where there is nothing to take away.
    (void)hosting::run(u"crontab"_s, {u"-r"_s, u"-u"_s, account});
    (void)hosting::run(u"loginctl"_s, {u"disable-linger"_s, account});
}

QString endLeaving(const Options &options, const Record &record)
{
    if (const QString problem = endForwarding(record.account); !problem.isEmpty())
        return problem;
    // The other server took visitors' addresses from this one, which tells it none any more.
    Options there = options;
    there.hosts = {record.host.toStdString()};
    return runThere(there, {u"corvctl"_s, u"account"_s, u"forwarded"_s, record.account, u"off"_s, u">/dev/null"_s},
                    kThereSeconds)
        .problem;
}

} // namespace corv::ctl::moving
