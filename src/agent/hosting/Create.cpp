#include "agent/hosting/Database.h"
#include "agent/hosting/Home.h"
#include "agent/hosting/Hosting.h"
#include "agent/hosting/Ids.h"
#include "agent/hosting/Leftovers.h"
#include "agent/hosting/Processes.h"
#include "agent/hosting/RemoveUser.h"
#include "agent/hosting/Web.h"
#include "common/Account.h"
#include "common/Paths.h"
#include "common/Pool.h"
#include "common/Psql.h"
#include "common/Run.h"
#include "common/Site.h"

#include <QFile>
#include <QList>

#include <algorithm>
#include <functional>

#include <grp.h>
#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

constexpr mode_t kPageMode = 0644;
constexpr mode_t kKeyFileMode = 0600;

using UndoList = QList<std::function<void()>>;

QString chown(const QString &owner, const QStringList &paths)
{
    return runInHomes(u"chown"_s, QStringList{owner} + paths);
}

// Runs the undo actions from the newest to the oldest; none of them stops the others.
Reply abortWith(const QString &message, const UndoList &undo)
{
    std::for_each(undo.crbegin(), undo.crend(), [](const auto &action) { action(); });
    return fail(message);
}

bool isTaken(const QString &name)
{
    const QByteArray entry = name.toLocal8Bit();
    return ::getpwnam(entry.constData()) || ::getgrnam(entry.constData());
}

// Why an account cannot be made, empty when it can. Changes nothing.
QString problemWith(const QString &user, const QString &domain, const QString &key)
{
    if (!validUsername(user))
        return u"username: 3 to 16 lowercase letters and digits, starting with a letter (not a reserved name)"_s;
    if (domain.isEmpty())
        return u"that is not a valid domain name"_s;
    if (isTaken(user))
        return u"a user or group named '%1' already exists on this server"_s.arg(user);
    if (exists(sitePath(user)))
        return u"an Apache site for '%1' already exists"_s.arg(user);
    if (!key.isEmpty() && !validKey(key))
        return u"that does not look like one SSH public key (ssh-ed25519 AAAA… comment)"_s;
    // chown and chmod by path would otherwise act on what the links of a former user lead to.
    if (homeHoldsLinks(user))
        return u"/home/%1 already exists and holds links"_s.arg(user);
    return {};
}

// Sees to it that nobody but the new user has anything to do with its ids. Returns why that cannot be had.
QString cleanIds(const QString &user)
{
    const std::optional<Ids> ids = idsOf(user);
    if (!ids)
        return {};
    // On a server where the C library does not know the ids that are kept, and useradd could not be told.
    const FormerIds former = formerIds();
    if (former.users.contains(ids->user))
        return u"useradd gave '%1' the user id %2 of a deleted account"_s.arg(user).arg(ids->user);
    if (former.groups.contains(ids->group))
        return u"useradd gave '%1' the group id %2 of a deleted account"_s.arg(user).arg(ids->group);
    // Ids may have been somebody's before the agent kept any.
    endProcesses(ids->user, InOwnRoot::Only);
    setAsideFormerFiles(user, *ids);
    return {};
}

// Lays the home out. What cannot be made here shows when its owner is set.
void fillHome(const QString &user, const QString &domain, const QString &key)
{
    for (const QString &folder : {u"public_html"_s, u"logs"_s, u"tmp"_s, u".ssh"_s})
        makeHomeFolder(user, folder);
    writeHomeFile(user, u"public_html"_s, u"index.html"_s, welcomePage(domain), kPageMode);
    if (!key.isEmpty())
        writeHomeFile(user, u".ssh"_s, u"authorized_keys"_s, key.toUtf8() + '\n', kKeyFileMode);
}

// Gives the home to the user, and to the web server what it has to reach. Returns the first failure's message.
QString handHomeOver(const QString &user)
{
    const QString home = homePath(user);
    const QString pages = home + u"/public_html"_s;
    if (const QString error = chown(u"%1:%1"_s.arg(user), {u"-R"_s, home}); !error.isEmpty())
        return error;
    // For servers on which links cannot be kept from leading out of homes while the tools work.
    if (homeHoldsLinks(user))
        return u"/home/%1 already exists and holds links"_s.arg(user);
    if (const QString error = chown(user + u":www-data"_s, {home, pages, pages + u"/index.html"_s}); !error.isEmpty())
        return error;
    if (const QString error = runInHomes(u"chmod"_s, {u"0710"_s, home}); !error.isEmpty())
        return error;
    // Set-group-ID: files made later stay readable to the web server.
    if (const QString error = runInHomes(u"chmod"_s, {u"2750"_s, pages}); !error.isEmpty())
        return error;
    return runInHomes(u"chmod"_s, {u"0700"_s, home + u"/.ssh"_s, home + u"/tmp"_s});
}

} // namespace

Reply create(const QJsonObject &args)
{
    const QString user = args.value("username"_L1).toString();
    const QString domain = normalDomain(args.value("domain"_L1).toString());
    const QString key = args.value("sshKey"_L1).toString().trimmed();
    if (const QString problem = problemWith(user, domain, key); !problem.isEmpty())
        return fail(problem);

    UndoList undo;
    setAsideFormerOwner(user);
    if (const QString error = addUser({u"--create-home"_s, u"--user-group"_s, u"--shell"_s, u"/bin/bash"_s,
                                       u"--comment"_s, accountComment(domain), user});
        !error.isEmpty())
        return fail(error);
    undo.append([=] {
        (void)run(u"pkill"_s, {u"-u"_s, user}); // whoever has no process is fine
        (void)removeUser(user);
    });
    if (const QString problem = cleanIds(user); !problem.isEmpty())
        return abortWith(problem, undo);

    fillHome(user, domain, key);
    if (const QString error = handHomeOver(user); !error.isEmpty())
        return abortWith(error, undo);

    const QString password = randomPassword();
    if (const QString error = psql(createDatabaseScript(user, password)); !error.isEmpty()) {
        return abortWith(error.contains("already exists"_L1)
                             ? u"a PostgreSQL role or database named '%1' already exists"_s.arg(user)
                             : error,
                         undo);
    }
    undo.append([=] { (void)psql(dropDatabaseScript(user)); });

    const QString php = phpVersion();
    if (!php.isEmpty()) {
        if (!writeFile(poolPath(php, user), pool(user), kWorldReadable))
            return abortWith(u"cannot write the PHP-FPM pool"_s, undo);
        undo.append([=] { (void)QFile::remove(poolPath(php, user)); });
    }

    if (!writeFile(sitePath(user), vhost(user, domain, !php.isEmpty(), false).toUtf8(), kWorldReadable))
        return abortWith(u"cannot write the Apache site"_s, undo);
    undo.append([=] {
        (void)run(u"a2dissite"_s, {u"-q"_s, siteName(user)});
        (void)QFile::remove(sitePath(user));
    });

    if (const QString error = run(u"a2ensite"_s, {u"-q"_s, siteName(user)}); !error.isEmpty())
        return abortWith(error, undo);

    if (const QString error = reloadWeb(php); !error.isEmpty()) {
        const Reply failure = abortWith(error, undo);
        (void)reloadWeb(php); // the running servers drop what has just been removed
        return failure;
    }

    return {{u"ok"_s, true},
            {u"domain"_s, domain},
            {u"phpVersion"_s, php},
            {u"dbPassword"_s, password},
            {u"accessLog"_s, u"/var/log/apache2/%1-access.log"_s.arg(domain)}};
}

} // namespace corv::hosting
