#include "ctl/commands/RestoreText.h"

#include "common/Environment.h"
#include "ctl/Session.h"
#include "ctl/screen/Escape.h"

#include <QJsonArray>
#include <QStringList>

#include <cstring>
#include <ctime>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

std::optional<int> refuseElsewhere(const Session &session, const QString &command)
{
    if (session.options.printOnly)
        return fail(kWrongUsage, u"that is done on the server itself, not by one request"_s);
    if (!session.options.hosts.empty()) {
        return fail(kWrongUsage, u"that is done on the server itself, not from here"_s,
                    u"ssh %1 corvctl %2 ..."_s.arg(QString::fromStdString(session.options.hosts.front()), command));
    }
    if (::geteuid() != 0)
        return fail(kNoConnection, u"that takes root"_s, u"run it as root: sudo corvctl %1 ..."_s.arg(command));
    return {};
}

void bareEnvironment()
{
    static const QList<QByteArray> kept = {"PATH", "TERM", "COLUMNS", "NO_COLOR", "CORV_CONFIG"};
    QList<QByteArray> names;
    for (char **entry = environ; *entry; ++entry)
        names.append(QByteArray(*entry, static_cast<qsizetype>(std::strcspn(*entry, "="))));
    for (const QByteArray &name : names) {
        if (!kept.contains(name))
            qunsetenv(name.constData());
    }
    // at reads the time of a job by the server's own zone, so that it has to be told by that.
    ::tzset();
    cleanEnvironment();
}

QString stateText(const AccountState &state)
{
    QStringList parts;
    if (state.role && !state.role->isEmpty())
        parts.append(u"database password"_s);
    if (isShadowHash(state.shadow.section(u'!', -1)))
        parts.append(u"login password"_s);
    if (!state.crontab.isEmpty())
        parts.append(u"crontab"_s);
    if (!state.jobs.isEmpty())
        parts.append(u"%1 job(s) of at"_s.arg(state.jobs.size()));
    if (!state.settings.isEmpty())
        parts.append(u"%1 setting(s)"_s.arg(state.settings.size()));
    if (state.limitMb.value_or(0) > 0)
        parts.append(u"limit %1 MiB"_s.arg(*state.limitMb));
    if (state.isSuspended)
        parts.append(u"suspended"_s);
    if (parts.isEmpty())
        parts.append(u"nothing in particular"_s);
    return parts.join(u", "_s);
}

QString sourceText(const Source &source)
{
    return u"%1, of %2"_s.arg(source.from, humanTime(source.made));
}

std::function<void(const QString &)> sayer(const Session &session, const QString &account)
{
    if (session.options.json || session.options.plain)
        return [](const QString &) {};
    return [account](const QString &step) { note(u"%1: %2"_s.arg(account, step)); };
}

QJsonObject restoredObject(const Plan &plan, const Restored &done)
{
    QJsonObject object = {{u"ok"_s, done.problem.isEmpty()},
                          {u"account"_s, plan.target},
                          {u"domain"_s, plan.domain},
                          {u"from"_s, plan.source.from},
                          {u"entries"_s, done.entries},
                          {u"tables"_s, done.tables},
                          {u"lost"_s, QJsonArray::fromStringList(done.lost)},
                          {u"seen"_s, done.seen},
                          {u"seconds"_s, done.seconds}};
    if (!done.problem.isEmpty())
        object.insert(u"error"_s, done.problem);
    if (done.lostTables > 0)
        object.insert(u"lostTables"_s, done.lostTables);
    if (!done.leftOut.isEmpty())
        object.insert(u"leftOut"_s, done.leftOut);
    if (!done.aside.isEmpty())
        object.insert(u"aside"_s, done.aside);
    if (!done.password.isEmpty())
        object.insert(u"dbPassword"_s, done.password);
    return object;
}

} // namespace corv::ctl
