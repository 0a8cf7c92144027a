#include "ctl/restore/Unpack.h"

#include "common/Account.h"
#include "common/Fd.h"
#include "common/Run.h"
#include "common/Tree.h"
#include "ctl/Interrupt.h"
#include "ctl/home/Archive.h"
#include "ctl/home/Beneath.h"
#include "ctl/home/InPlace.h"

#include <QDateTime>
#include <QDir>
#include <QFile>

#include <algorithm>

#include <fcntl.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kLongestMs = 12 * 3'600'000;
constexpr int kClearMs = 600'000;
// A former attempt's are told from what the archive may hold by being no name that a home has otherwise.
constexpr auto kUnpacked = ".corv-unpacked-"_L1;
constexpr auto kAside = ".corv-aside-"_L1;

// Runs tar as the account, as long as nobody interrupts it.
Unpacked unpackInto(const QString &folder, const QString &archive, const QString &account)
{
    const Fd file(::open(QFile::encodeName(archive).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file)
        return {u"%1 cannot be read"_s.arg(archive), false, 0};
    hosting::Streams streams;
    streams.inputFile = file.get();
    hosting::Surroundings surroundings;
    surroundings.milliseconds = kLongestMs;
    surroundings.goesOn = [] { return !interrupted(); };
    const QString problem = hosting::runWith(u"runuser"_s,
                                             {u"-u"_s, account, u"--"_s, u"tar"_s, u"-xzf"_s, u"-"_s, u"-C"_s, folder,
                                              u"--strip-components=1"_s, u"--no-same-owner"_s},
                                             streams, surroundings);
    if (interrupted())
        return {u"it was interrupted"_s, true, 0};
    return {problem, false, 0};
}

// What creation has put into the home and the archive does not have: the files of /etc/skel.
QList<QByteArray> superfluous(const QList<ArchiveEntry> &entries)
{
    QList<QByteArray> names;
    for (const QString &name : QDir(u"/etc/skel"_s).entryList(QDir::Files | QDir::Hidden)) {
        const QByteArray path = QFile::encodeName(name);
        if (std::none_of(entries.cbegin(), entries.cend(),
                         [&path](const ArchiveEntry &entry) { return entry.path == path; }))
            names.append(path);
    }
    return names;
}

// Removes these entries of a home, with the account's rights.
void removeFrom(const QByteArray &home, const QList<QByteArray> &names, const Rights &rights)
{
    (void)workAs(rights, kClearMs, [&] {
        const Fd folder(::open(home.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        for (const QByteArray &name : names)
            (void)removeTree(folder.get(), name.constData());
        return QByteArray();
    });
}

} // namespace

Unpacked unpackHome(const Source &source, const QString &account)
{
    const std::optional<Rights> rights = accountRights(account);
    if (!rights)
        return {u"there is no user %1, or no group www-data"_s.arg(account), false, 0};
    Unpacked done;
    Placing placing;
    placing.entries = readArchive(source.home, source.account, {}, &done.problem);
    if (!done.problem.isEmpty())
        return done;
    const QString home = hosting::homePath(account);
    const QString stamp = QDateTime::currentDateTime().toString(u"yyyyMMddHHmmsszzz"_s);
    placing.home = QFile::encodeName(home);
    placing.source = (kUnpacked + stamp).toLatin1();
    placing.aside = (kAside + stamp).toLatin1();
    placing.isUnpacked = true;
    for (const ArchiveEntry &entry : placing.entries) {
        if (!entry.path.contains('/') && entry.path != placing.source && entry.path != placing.aside)
            placing.paths.append(entry.path);
    }

    const QString folder = home + u'/' + kUnpacked + stamp;
    done.problem = hosting::asUser(account, {u"mkdir"_s, u"-m"_s, u"0700"_s, folder});
    if (!done.problem.isEmpty())
        return done;
    done = unpackInto(folder, source.home, account);
    if (!done.problem.isEmpty()) {
        clearAttempt(account);
        return done;
    }
    const Placed placed = putInPlace(*rights, placing);
    done.problem = placed.problem;
    done.entries = placing.entries.size();
    if (placed.problem.isEmpty())
        removeFrom(placing.home, superfluous(placing.entries) + QList<QByteArray>{placing.aside}, *rights);
    return done;
}

void clearAttempt(const QString &account)
{
    const std::optional<Rights> rights = accountRights(account);
    if (!rights)
        return;
    (void)hosting::run(u"pkill"_s, {u"-KILL"_s, u"-u"_s, account}); // whoever has no process is fine
    const QByteArray home = QFile::encodeName(hosting::homePath(account));
    QList<QByteArray> names;
    const QStringList patterns = {kUnpacked + u'*', kAside + u'*'};
    for (const QString &name : QDir(QFile::decodeName(home)).entryList(patterns, QDir::Dirs | QDir::Hidden))
        names.append(QFile::encodeName(name));
    removeFrom(home, names, *rights);
}

} // namespace corv::ctl
