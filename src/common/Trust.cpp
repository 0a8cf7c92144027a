#include "common/Trust.h"

#include <QFile>

#include <filesystem>
#include <system_error>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

// Debian gives this group /usr/local on servers that were installed long ago; who is in it counts as root.
constexpr gid_t kStaff = 50;
constexpr int kMostLinks = 40; // as many as the kernel follows

bool isRoots(const struct stat &status, mode_t others)
{
    return status.st_uid == 0 && (status.st_mode & others) == 0;
}

} // namespace

bool isRootsAlone(const struct stat &status)
{
    return isRoots(status, S_IWGRP | S_IWOTH);
}

QString foreignFolder(QString path)
{
    int links = 0;
    for (qsizetype end = 1;;) {
        const QString part = path.left(end);
        struct stat status = {};
        if (::lstat(QFile::encodeName(part).constData(), &status) != 0)
            return part;
        if (S_ISLNK(status.st_mode)) {
            std::error_code error;
            const QString target =
                QString::fromStdString(std::filesystem::read_symlink(part.toStdString(), error).string());
            if (error || ++links > kMostLinks)
                return part;
            const QString base = target.startsWith(u'/') ? QString() : part.left(part.lastIndexOf(u'/') + 1);
            path = base + target + path.mid(end);
            end = 1;
            continue;
        }
        if (end == path.size())
            return {};
        const mode_t others = status.st_gid == 0 || status.st_gid == kStaff ? S_IWOTH : S_IWGRP | S_IWOTH;
        if (!isRoots(status, others))
            return part;
        const qsizetype next = path.indexOf(u'/', end == 1 ? 1 : end + 1);
        end = next < 0 ? path.size() : next;
    }
}

QString refusalOfFile(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return path + u" cannot be read"_s;
    if (!S_ISREG(status.st_mode))
        return path + u" is no file of its own"_s;
    if (!isRootsAlone(status))
        return path + u" could have been written by others than root"_s;
    const QString folder = foreignFolder(path);
    return folder.isEmpty()
               ? QString()
               : u"%1 could have been put there by others than root, who may write to %2"_s.arg(path, folder);
}

} // namespace corv
