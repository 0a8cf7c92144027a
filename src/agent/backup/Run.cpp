#include "common/Run.h"
#include "agent/backup/Backup.h"
#include "common/Account.h"
#include "common/Archiver.h"
#include "common/BackupFolders.h"
#include "common/BackupManifest.h"
#include "common/Fd.h"
#include "common/HttpsOptions.h"
#include "common/Tree.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::backup {
namespace {

constexpr mode_t kDestinationMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr qint64 kMegabyte = 1'048'576;

constexpr auto kPanelDatabase = "corvane"_L1;

// Writes one line of progress, at once: the journal has it even if the process is stopped soon after.
void say(const QString &text)
{
    const QByteArray line = text.toLocal8Bit() + '\n';
    (void)std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stdout); // nobody could be told
    (void)std::fflush(stdout);
}

// The problems of a run, each told as it comes up.
class Problems
{
public:
    // Notes that what could not be saved; an empty error is none.
    void add(const QString &what, const QString &error)
    {
        if (error.isEmpty())
            return;
        m_list.append(what + ": "_L1 + error);
        say("  ! "_L1 + m_list.last());
    }

    [[nodiscard]] const QStringList &list() const
    {
        return m_list;
    }

private:
    QStringList m_list;
};

// Makes the unfinished backup's folders. An empty or relative destination would put them into the root folder or
// wherever the process happens to be; the root folder itself would be closed to everybody.
bool makeFolders(const QString &destination, const QString &partial)
{
    if (!QDir::isAbsolutePath(destination) || destination == "/"_L1 || !QDir().mkpath(partial + u"/accounts"_s))
        return false;
    (void)::chmod(QFile::encodeName(destination).constData(), kDestinationMode);
    return true;
}

QString dumpDatabase(const QString &name, const QString &file)
{
    return hosting::run(u"runuser"_s, {u"-u"_s, u"postgres"_s, u"--"_s, u"pg_dump"_s, u"-Fc"_s, name}, {}, nullptr,
                        file);
}

QStringList filesIn(const QString &path, const QString &wildcard)
{
    return QDir(path).entryList({wildcard}, QDir::Files | QDir::CaseSensitive, QDir::Unsorted);
}

// The panel's settings files, the accounts' sites and their PHP-FPM pools, as paths from the root folder.
QStringList settingsFiles()
{
    QStringList members = {u"etc/corvane"_s,
                           u"etc/apache2/sites-available/corvane.conf"_s,
                           u"etc/apache2/conf-available/corv-logformat.conf"_s,
                           u"etc/powerdns/pdns.d/corvane.conf"_s,
                           u"etc/fail2ban/jail.d/corvane.local"_s,
                           u"etc/fail2ban/filter.d/corv-web.conf"_s};
    members.removeIf([](const QString &member) { return !QFileInfo::exists(u'/' + member); });

    const QString sites = u"etc/apache2/sites-available/"_s;
    for (const QString &site : filesIn(u'/' + sites, u"corv-*.conf"_s))
        members.append(sites + site);

    const QStringList versions = QDir(u"/etc/php"_s).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString &version : versions) {
        const QString pools = u"etc/php/%1/fpm/pool.d/"_s.arg(version);
        for (const QString &pool : filesIn(u'/' + pools, u"corv-*"_s))
            members.append(pools + pool);
    }
    return members;
}

// What Apache has in hand while it gets a certificate comes and goes, and is begun anew after a restore: a folder that
// changes as it is read would make a problem of the night.
QString archiveSettings(const QString &file)
{
    hosting::Surroundings surroundings = hosting::archiverSurroundings();
    for (const QString &passing : {u"challenges"_s, u"staging"_s, u"tmp"_s}) {
        const QString folder = QLatin1StringView(https::kStore).sliced(1) + u'/' + passing;
        surroundings.environment[u"TAR_OPTIONS"_s] += u" --exclude="_s + folder;
    }
    return hosting::runWith(u"tar"_s, QStringList{u"-czf"_s, file, u"-C"_s, u"/"_s} + settingsFiles(), {},
                            surroundings);
}

QString archiveHome(const QString &user, const QString &file)
{
    return hosting::runWith(u"tar"_s, {u"-czf"_s, file, u"--exclude=%1/tmp"_s.arg(user), u"-C"_s, u"/home"_s, user}, {},
                            hosting::archiverSurroundings());
}

// Saves one account. Nothing is skipped: what is missing shows as a problem.
SavedAccount saveAccount(const hosting::User &account, const QString &folder, Problems *problems)
{
    const QString user = account.name;
    const QString home = u"%1/%2-home.tar.gz"_s.arg(folder, user);
    const QString dump = u"%1/%2-db.dump"_s.arg(folder, user);
    say("  account "_L1 + user);
    problems->add(user + u" files"_s, archiveHome(user, home));
    problems->add(user + u" database"_s, dumpDatabase(user, dump));
    return {user, hosting::domainIn(account.comment), sizeOf(home), sizeOf(dump)};
}

// A backup without its manifest is still a backup: what goes wrong here stops nothing.
void writeManifest(const Manifest &manifest, const QString &path)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        (void)file.write(manifestText(manifest));
}

void closeFilesToOthers(const QString &folder)
{
    const auto close = [](int parent, const char *file) {
        struct stat status = {};
        return ::fstatat(parent, file, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
               (!S_ISREG(status.st_mode) || ::fchmodat(parent, file, kFileMode, 0) == 0);
    };
    (void)walkTree(AT_FDCWD, QFile::encodeName(folder).constData(), close, [](int, const char *) { return true; });
}

// Gives a folder its final name. Fails where anything has that name already: a plain rename would replace an empty
// folder.
bool renameToNew(const QString &from, const QString &to)
{
    const QByteArray oldName = QFile::encodeName(from);
    const QByteArray newName = QFile::encodeName(to);
    if (::renameat2(AT_FDCWD, oldName.constData(), AT_FDCWD, newName.constData(), RENAME_NOREPLACE) == 0)
        return true;
    // Network file systems do not know the flag.
    struct stat status = {};
    return errno == EINVAL && ::lstat(newName.constData(), &status) != 0 && errno == ENOENT &&
           ::rename(oldName.constData(), newName.constData()) == 0;
}

void removePast(const Config &config, const QString &newest)
{
    const QDate today = QDate::currentDate();
    const Fd destination(::open(QFile::encodeName(config.destination).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const Folder &folder : foldersIn(config.destination)) {
        const QString name = QFile::decodeName(folder.name);
        if (name == newest || !isPast(folder, today, config.keepDays))
            continue;
        say("  removing old "_L1 + name);
        (void)removeTree(destination.get(), folder.name.constData()); // tried again by the next run
    }
}

} // namespace

int run(const Config &config)
{
    QElapsedTimer stopwatch;
    stopwatch.start();
    const QString stamp = QDateTime::currentDateTime().toString(kStampFormat);
    const QString partial = u"%1/%2%3"_s.arg(config.destination, kPartialPrefix, stamp);
    const QString finished = u"%1/%2"_s.arg(config.destination, stamp);

    if (!makeFolders(config.destination, partial)) {
        say("cannot create "_L1 + partial);
        return 1;
    }
    say(u"backup %1 -> %2"_s.arg(stamp, config.destination));

    Problems problems;
    problems.add(u"panel database"_s, dumpDatabase(kPanelDatabase, partial + u"/panel.dump"_s));
    problems.add(u"settings"_s, archiveSettings(partial + u"/config.tar.gz"_s));

    Manifest manifest;
    for (const hosting::User &user : hosting::users()) {
        if (hosting::hasMarker(user.comment))
            manifest.accounts.append(saveAccount(user, partial + u"/accounts"_s, &problems));
    }

    manifest.name = stamp;
    manifest.created = QDateTime::currentSecsSinceEpoch();
    manifest.seconds = stopwatch.elapsed() / 1000;
    manifest.panelBytes = sizeOf(partial + u"/panel.dump"_s);
    manifest.errors = problems.list();
    writeManifest(manifest, partial + u"/manifest.json"_s);
    closeFilesToOthers(partial);

    if (!renameToNew(partial, finished)) {
        say("cannot rename "_L1 + partial);
        return 1;
    }
    removePast(config, stamp);

    say(u"done in %1 s, %2 MB, %3 problem(s)"_s.arg(QString::number(stopwatch.elapsed() / 1000),
                                                    QString::number(sizeOf(finished) / kMegabyte),
                                                    QString::number(problems.list().size())));
    return problems.list().isEmpty() ? 0 : 1;
}

} // namespace corv::backup
