#include "ctl/move/Place.h"

#include "common/Account.h"
#include "common/FolderStream.h"
#include "common/Run.h"
#include "common/Tree.h"
#include "ctl/home/Beneath.h"
#include "ctl/home/InPlace.h"
#include "ctl/home/Rights.h"
#include "ctl/move/Listing.h"

#include <QFile>

#include <algorithm>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kWorkMs = 600'000;
constexpr auto kStays = "tmp"; // what does not come along

// The names in a folder, of whatever bytes; none where it cannot be read.
QList<QByteArray> namesIn(int parent, const char *name)
{
    const int folder = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    const FolderStream entries(folder < 0 ? nullptr : ::fdopendir(folder));
    QList<QByteArray> names;
    while (const dirent *entry = entries ? ::readdir(entries.get()) : nullptr) {
        const QByteArray found = entry->d_name;
        if (found != "." && found != "..")
            names.append(found);
    }
    return names;
}

Fd openHome(const QByteArray &home)
{
    return Fd(::open(home.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool isOurs(const QByteArray &name)
{
    return name == kComing || name == kReplaced || name == kStays;
}

// What the agent has made here and the home there does not have, and what an attempt before has left.
void clearHere(const QByteArray &home)
{
    const Fd folder = openHome(home);
    const QList<QByteArray> come = namesIn(folder.get(), kComing);
    (void)removeTree(folder.get(), kReplaced);
    for (const QByteArray &name : namesIn(folder.get(), ".")) {
        if (!isOurs(name) && !come.contains(name))
            (void)removeTree(folder.get(), name.constData());
    }
}

void takeBackHere(const QByteArray &home)
{
    const Fd folder = openHome(home);
    (void)::mkdirat(folder.get(), kComing, S_IRWXU);
    const Fd coming = openBeneath(folder.get(), kComing);
    for (const QByteArray &name : namesIn(folder.get(), ".")) {
        // What is in both places had not changed them yet; rsync tells what it should be.
        if (!isOurs(name) &&
            ::renameat2(folder.get(), name.constData(), coming.get(), name.constData(), RENAME_NOREPLACE) != 0)
            (void)removeTree(folder.get(), name.constData());
    }
    (void)removeTree(folder.get(), kReplaced);
}

QString workIn(const QString &account, const std::function<QByteArray(const QByteArray &)> &work, QByteArray *said)
{
    const std::optional<Rights> rights = accountRights(account);
    if (!rights)
        return u"there is no user %1, or no group www-data"_s.arg(account);
    const QByteArray home = QFile::encodeName(hosting::homePath(account));
    const Work done = workAs(*rights, kWorkMs, [&] { return work(home); });
    *said = done.said;
    return done.problem.isEmpty() ? QString() : u"the work in the home "_s + done.problem;
}

} // namespace

void endAttempt(const QString &account)
{
    (void)hosting::run(u"pkill"_s, {u"-KILL"_s, u"-u"_s, account}); // whoever has no process is fine
}

void prepareCome(const QString &account, const QList<ArchiveEntry> &listing)
{
    Placing placing;
    placing.home = QFile::encodeName(hosting::homePath(account));
    placing.source = kComing;
    placing.entries = listing;
    if (const std::optional<Rights> rights = accountRights(account))
        (void)putInPlace(*rights, placing);
}

QString putComeInPlace(const QString &account, const QList<ArchiveEntry> &listing)
{
    QByteArray names;
    const QString problem = workIn(
        account,
        [](const QByteArray &home) {
            clearHere(home);
            return namesIn(openHome(home).get(), kComing).join('\0');
        },
        &names);
    if (!problem.isEmpty())
        return problem;
    Placing placing;
    placing.home = QFile::encodeName(hosting::homePath(account));
    placing.source = kComing;
    placing.aside = kReplaced;
    placing.entries = listing;
    placing.isUnpacked = true;
    for (const QByteArray &name : names.split('\0')) {
        if (!name.isEmpty())
            placing.paths.append(name);
    }
    const Placed placed = putInPlace(*accountRights(account), placing);
    // What is left of it goes with the next attempt or with the account.
    (void)workIn(
        account,
        [](const QByteArray &home) {
            (void)removeTree(openHome(home).get(), kReplaced);
            return QByteArray();
        },
        &names);
    return placed.problem;
}

QString takeBack(const QString &account)
{
    endAttempt(account);
    QByteArray nothing;
    return workIn(
        account,
        [](const QByteArray &home) {
            takeBackHere(home);
            return QByteArray();
        },
        &nothing);
}

} // namespace corv::ctl::moving
