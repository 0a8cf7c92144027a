#include "ctl/verify/Reader.h"

#include <QFile>
#include <QRegularExpression>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr uid_t kNobody = 65'534;
constexpr qsizetype kLongestComplaint = 200;

} // namespace

// Not runuser: it opens a session, with two lines in the log for each file that is looked at.
QStringList readerCommand(const QStringList &program)
{
    const passwd *const user = ::getpwnam(QFile::encodeName(kReaderName).constData());
    const uid_t uid = user ? user->pw_uid : kNobody;
    const gid_t gid = user ? user->pw_gid : kNobody;
    const QStringList rights = {u"--reuid=%1"_s.arg(uid),
                                u"--regid=%1"_s.arg(gid),
                                u"--clear-groups"_s,
                                u"--inh-caps=-all"_s,
                                u"--bounding-set=-all"_s,
                                u"--no-new-privs"_s,
                                u"--"_s};
    return rights + program;
}

SavedFile openSaved(const QString &path)
{
    SavedFile saved;
    // Without O_NONBLOCK a FIFO of that name would hold this up for ever.
    saved.file = Fd(::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const int error = errno;
    struct stat status = {};
    if (!saved.file)
        saved.fault = error == ENOENT ? u"is missing"_s
                                      : u"cannot be opened: %1"_s.arg(QString::fromLocal8Bit(std::strerror(error)));
    else if (::fstat(saved.file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        saved.fault = u"is no regular file"_s;
    else if (status.st_size == 0)
        saved.fault = u"is empty"_s;
    saved.bytes = status.st_size;
    return saved;
}

QString complaintIn(const QString &message)
{
    QStringList lines = message.split(u'\n', Qt::SkipEmptyParts);
    // What tar adds to what it, or gzip, has said already.
    static const QRegularExpression known(
        u"\\Atar: (?:Child (?:returned|died)|Error is not recoverable|Exiting with failure status)"_s);
    const QString first = lines.value(0, u"the program that reads it failed without a word"_s);
    lines.removeIf([](const QString &line) { return known.match(line).hasMatch(); });
    if (lines.isEmpty())
        lines.append(first);
    for (QString &line : lines)
        line = line.simplified();
    lines.removeAll(QString());
    return lines.join("; "_L1).left(kLongestComplaint);
}

} // namespace corv::ctl
