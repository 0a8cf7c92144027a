#include "common/BackupFolders.h"

#include "common/Fd.h"
#include "common/FolderStream.h"
#include "common/Tree.h"

#include <QDateTime>
#include <QFile>
#include <QRegularExpression>

#include <memory>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::backup {
namespace {

// How many midnights lie between a finished backup's start and today; 0 when its name is no valid time.
qint64 ageInDays(const QString &name, const QDate &today)
{
    // Date and time apart: as a local time, one that a change of summer time skips would not be valid.
    const QDate date = QDate::fromString(name.left(10), u"yyyy-MM-dd"_s);
    const QTime time = QTime::fromString(name.mid(11), u"HHmmss"_s);
    return date.isValid() && time.isValid() ? date.daysTo(today) : 0;
}

} // namespace

bool isBackupName(const QString &name)
{
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(u"\\d{4}-\\d{2}-\\d{2}_\\d{6}"_s));
    return pattern.match(name).hasMatch();
}

qint64 timeOf(const QString &name)
{
    const QDateTime time = QDateTime::fromString(name, kStampFormat.toString());
    return time.isValid() ? time.toSecsSinceEpoch() : 0;
}

QList<Folder> foldersIn(const QString &path)
{
    const FolderStream stream(::opendir(QFile::encodeName(path).constData()));
    QList<Folder> folders;
    while (const dirent *entry = stream ? ::readdir(stream.get()) : nullptr) {
        const QByteArray name = entry->d_name;
        struct stat status = {};
        if (name == "." || name == ".." ||
            ::fstatat(::dirfd(stream.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISDIR(status.st_mode))
            continue;
        folders.append({name, QDateTime::fromSecsSinceEpoch(status.st_mtime).date()});
    }
    return folders;
}

QString newestIn(const QString &path)
{
    QString newest;
    for (const Folder &folder : foldersIn(path)) {
        const QString name = QFile::decodeName(folder.name);
        if (isBackupName(name) && name > newest)
            newest = name;
    }
    return newest;
}

bool isPast(const Folder &folder, const QDate &today, int keepDays)
{
    const QString name = QFile::decodeName(folder.name);
    if (isBackupName(name))
        return ageInDays(name, today) > keepDays;
    return name.startsWith(kPartialPrefix) && folder.modified.daysTo(today) >= 1;
}

qint64 sizeOf(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat status = {};
    if (::lstat(name.constData(), &status) != 0)
        return 0;
    if (!S_ISDIR(status.st_mode))
        return S_ISREG(status.st_mode) ? status.st_size : 0;

    qint64 sum = 0;
    const auto add = [&sum](int folder, const char *file) {
        struct stat found = {};
        if (::fstatat(folder, file, &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(found.st_mode))
            sum += found.st_size;
        return true;
    };
    (void)walkTree(AT_FDCWD, name.constData(), add, [](int, const char *) { return true; });
    return sum;
}

} // namespace corv::backup
