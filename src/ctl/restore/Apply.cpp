#include "ctl/restore/Apply.h"

#include "common/Account.h"
#include "common/Psql.h"
#include "common/Run.h"
#include "ctl/doctor/Facts.h"
#include "ctl/restore/Collect.h"

#include <QDateTime>
#include <QFileInfo>

#include <algorithm>

#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr auto kLocked = '!';
constexpr qint64 kSoon = 120; // seconds in which a job is not worth making any more

// Nothing of what follows is to be found in the server's log, nor in what psql says of an error.
const QByteArray kQuietly = R"(\set VERBOSITY terse
\set SHOW_CONTEXT never
SET log_statement = 'none';
SET log_min_duration_statement = -1;
SET log_min_error_statement = 'panic';
SET standard_conforming_strings = on;
)";

// The settings that PostgreSQL keeps as lists of quoted names.
constexpr QLatin1StringView kLists[] = {
    "search_path"_L1,
    "temp_tablespaces"_L1,
    "local_preload_libraries"_L1,
    "session_preload_libraries"_L1,
    "shared_preload_libraries"_L1,
    "unix_socket_directories"_L1,
};

QString literal(const QString &text)
{
    return u'\'' + QString(text).replace(u'\'', u"''"_s) + u'\'';
}

QString identifier(const QString &text)
{
    return u'"' + QString(text).replace(u'"', u"\"\""_s) + u'"';
}

QString valueOf(const KeptSetting &setting)
{
    QStringList names;
    const bool isList = std::find(std::begin(kLists), std::end(kLists), setting.name.toLower()) != std::end(kLists);
    if (!isList || !splitNames(setting.value, &names))
        return literal(setting.value);
    for (QString &name : names)
        name = literal(name);
    return names.isEmpty() ? u"''"_s : names.join(", "_L1);
}

// Runs a program with the account's rights and nothing of root's environment.
QString runAs(const QString &account, const QStringList &command, const QByteArray &input)
{
    const QStringList bare = {u"env"_s,
                              u"-i"_s,
                              u"PATH=/usr/bin:/bin"_s,
                              u"LC_ALL=C.UTF-8"_s,
                              u"HOME="_s + hosting::homePath(account),
                              u"USER="_s + account,
                              u"LOGNAME="_s + account,
                              u"SHELL=/bin/sh"_s};
    return hosting::asUser(account, bare + command, input);
}

QString jobProblem(const KeptJob &job, const QString &account)
{
    const QString time = QDateTime::fromSecsSinceEpoch(job.time).toString(u"yyyyMMddHHmm"_s);
    return runAs(account, {u"at"_s, u"-q"_s, QString(QLatin1Char(job.queue)), u"-t"_s, time}, job.script);
}

} // namespace

bool splitNames(const QString &value, QStringList *names)
{
    names->clear();
    qsizetype at = 0;
    const auto skipBlanks = [&] {
        while (at < value.size() && value[at].isSpace())
            ++at;
    };
    skipBlanks();
    while (at < value.size()) {
        QString name;
        if (value[at] == u'"') {
            for (++at; at < value.size(); ++at) {
                if (value[at] == u'"' && (at + 1 >= value.size() || value[at + 1] != u'"'))
                    break;
                if (value[at] == u'"')
                    ++at;
                name += value[at];
            }
            if (at >= value.size())
                return false;
            ++at;
        } else {
            while (at < value.size() && value[at] != u',' && !value[at].isSpace())
                name += value[at++];
            if (name.isEmpty())
                return false;
        }
        names->append(name);
        skipBlanks();
        if (at >= value.size())
            return true;
        if (value[at++] != u',')
            return false;
        skipBlanks();
        if (at >= value.size())
            return false;
    }
    return true;
}

QByteArray passwordScript(const QString &account, const QString &hash)
{
    return kQuietly +
           u"ALTER ROLE %1 PASSWORD %2;\n"_s.arg(identifier(account), hash.isEmpty() ? u"NULL"_s : literal(hash))
               .toUtf8();
}

QByteArray settingScript(const QString &account, const KeptSetting &setting, SaidBy by)
{
    const QString name = identifier(account);
    const QString where = setting.scope == KeptSetting::Scope::Database ? u"DATABASE "_s + name
                          : setting.scope == KeptSetting::Scope::Role   ? u"ROLE "_s + name
                                                                        : u"ROLE %1 IN DATABASE %1"_s.arg(name);
    const QByteArray statement =
        u"ALTER %1 SET %2 = %3;\n"_s.arg(where, identifier(setting.name), valueOf(setting)).toUtf8();
    if (by == SaidBy::Us)
        return kQuietly + statement;
    // Behind what only a superuser may set, and given up again for the same of the next one.
    return kQuietly + "SET ROLE " + name.toUtf8() + ";\n" + statement + "RESET ROLE;\n";
}

QStringList applyRole(const AccountState &state, const QString &account, SaidBy by, bool *isLost)
{
    QStringList problems;
    // The older kind of hash is made with the role's name in it.
    const bool isOfName = state.role.value_or(QString()).startsWith("md5"_L1) && account != state.username;
    const bool isHash = state.role && (state.role->isEmpty() || isRoleHash(*state.role)) && !isOfName;
    *isLost = !isHash;
    if (!isHash) {
        problems.append(isOfName ? u"the database's password, whose hash goes with the old name"_s
                                 : u"the database's password, of which no hash was written down"_s);
    } else if (const QString problem = hosting::psql(passwordScript(account, *state.role)); !problem.isEmpty()) {
        *isLost = true;
        problems.append(u"the database's password: "_s + problem);
    }
    for (const KeptSetting &setting : state.settings) {
        if (const QString problem = hosting::psql(settingScript(account, setting, by)); !problem.isEmpty())
            problems.append(u"the setting %1 of PostgreSQL: %2"_s.arg(setting.name, problem));
    }
    return problems;
}

bool applyRoleAtOnce(const AccountState &state, const QString &account, SaidBy by)
{
    if (!state.role || account != state.username || (!state.role->isEmpty() && !isRoleHash(*state.role)))
        return false;
    QByteArray script = passwordScript(account, *state.role);
    for (const KeptSetting &setting : state.settings)
        script += settingScript(account, setting, by);
    return hosting::psql(script).isEmpty();
}

QStringList applyLogin(const AccountState &state, const QString &account)
{
    QStringList problems;
    const auto add = [&problems](const QString &what, const QString &problem) {
        if (!problem.isEmpty())
            problems.append(u"%1: %2"_s.arg(what, problem));
    };
    QString hash = state.shadow;
    while (hash.startsWith(QLatin1Char(kLocked)))
        hash.remove(0, 1);
    if (isShadowHash(hash)) {
        add(u"the login's password"_s,
            hosting::run(u"chpasswd"_s, {u"-e"_s}, u"%1:%2\n"_s.arg(account, hash).toLatin1()));
        // A suspension locks it, too, and comes behind this.
        if (state.shadow != hash && !state.isSuspended)
            add(u"the lock of the login's password"_s, hosting::run(u"usermod"_s, {u"--lock"_s, account}));
    }
    const passwd *const user = ::getpwnam(account.toLatin1().constData());
    const QString shell = user ? QString::fromLocal8Bit(user->pw_shell) : QString();
    if (!state.shell.isEmpty() && state.shell != shell) {
        if (isShellPath(state.shell) && QFileInfo(state.shell).isExecutable())
            add(u"the shell"_s, hosting::run(u"usermod"_s, {u"--shell"_s, state.shell, account}));
        else
            problems.append(u"the shell %1, which this server does not have"_s.arg(state.shell));
    }
    return problems;
}

bool isSameJob(const KeptJob &kept, const KeptJob &there)
{
    // at puts the environment and the folder of whoever calls it before what it is given.
    return kept.time == there.time && kept.queue == there.queue && there.script.contains(kept.script.trimmed());
}

QStringList applyLinger(const AccountState &state, const QString &account)
{
    const QString problem = state.lingers ? hosting::run(u"loginctl"_s, {u"enable-linger"_s, account}) : QString();
    return problem.isEmpty() ? QStringList() : QStringList{u"services without a login: "_s + problem};
}

QStringList applyJobs(const AccountState &state, const QString &account, qint64 now)
{
    const passwd *const user = ::getpwnam(account.toLatin1().constData());
    if (state.jobs.isEmpty() || !user)
        return {};
    QStringList problems;
    QList<KeptJob> there = jobsOf(user->pw_uid);
    // One may be a part of another.
    std::sort(there.begin(), there.end(),
              [](const KeptJob &one, const KeptJob &other) { return one.script.size() < other.script.size(); });
    for (const KeptJob &job : state.jobs) {
        const auto made =
            std::find_if(there.begin(), there.end(), [&job](const KeptJob &other) { return isSameJob(job, other); });
        if (job.time < now + kSoon)
            continue;
        if (made != there.end()) {
            there.erase(made); // of two that are the same each is made
        } else if (const QString problem = jobProblem(job, account); !problem.isEmpty()) {
            problems.append(u"a job of at: "_s + problem);
        }
    }
    return problems;
}

QStringList lateJobs(const AccountState &state, qint64 now)
{
    const auto late = std::count_if(state.jobs.cbegin(), state.jobs.cend(),
                                    [now](const KeptJob &job) { return job.time < now + kSoon; });
    return late > 0 ? QStringList{u"%1 job(s) of at whose time is past"_s.arg(late)} : QStringList();
}

QStringList applyCrontab(const AccountState &state, const QString &account)
{
    if (state.crontab.isEmpty())
        return {};
    const QString problem = hosting::run(u"crontab"_s, {u"-u"_s, account, u"-"_s}, state.crontab);
    return problem.isEmpty() ? QStringList() : QStringList{u"the crontab: "_s + problem};
}

QStringList databaseDifferences(const AccountState &state, const QString &account)
{
    AccountState now;
    now.username = account;
    QList<AccountState> states = {now};
    for (const QByteArray &line : runStatements({kRolesQuery}).output.split('\n'))
        (void)addRole(line, &states);
    if (!state.database || !states[0].database || *state.database == *states[0].database)
        return {};
    const auto shown = [](const KeptDatabase &database) {
        return u"%1, %2, %3"_s.arg(database.encoding, database.collate, database.ctype);
    };
    return {u"the database's encoding and locale: it was %1 and is %2"_s.arg(shown(*state.database),
                                                                             shown(*states[0].database))};
}

} // namespace corv::ctl
