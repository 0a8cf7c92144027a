#include "agent/files/Copy.h"
#include "agent/files/Names.h"
#include "agent/files/Operations.h"
#include "agent/files/Transfer.h"
#include "common/Fd.h"
#include "common/Text.h"
#include "common/Transfer.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::files {
namespace {

QString systemError()
{
    return QString::fromUtf8(std::strerror(errno));
}

// A file on its way to be read. problem is what is wrong with it, empty when file is open.
struct Source
{
    Fd file;
    QString problem;
};

// What is not a regular file is not opened, a FIFO for one would wait for a writer; and since it may be swapped between
// the look and the opening, what was opened is looked at again.
Source openSource(const QByteArray &path, qint64 maxSize, const QString &tooBig)
{
    struct stat status = {};
    if (::stat(path.constData(), &status) != 0 || !S_ISREG(status.st_mode))
        return {Fd(), u"not a file"_s};
    if (status.st_size > maxSize)
        return {Fd(), tooBig};
    Fd file(::open(path.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file)
        return {Fd(), systemError()};
    if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return {Fd(), u"not a file"_s};
    if (status.st_size > maxSize)
        return {Fd(), tooBig};
    return {std::move(file), QString()};
}

ssize_t readSome(int file, char *data, qsizetype size)
{
    for (;;) {
        const ssize_t count = ::read(file, data, static_cast<size_t>(size));
        if (count >= 0 || errno != EINTR)
            return count;
    }
}

} // namespace

Reply read(const QByteArray &path)
{
    const QString tooBig = u"too big for the editor (over 2 MB); download it instead"_s;
    const Source source = openSource(path, kMaxText, tooBig);
    if (!source.problem.isEmpty())
        return fail(source.problem);

    // One byte more than may be there: a file that grows meanwhile is noticed.
    QByteArray data(kMaxText + 1, Qt::Uninitialized);
    qsizetype length = 0;
    while (length < data.size()) {
        const ssize_t count = readSome(source.file.get(), data.data() + length, data.size() - length);
        if (count < 0)
            return fail(systemError());
        if (count == 0)
            break;
        length += count;
    }
    if (length > kMaxText)
        return fail(tooBig);
    data.truncate(length);

    if (data.contains('\0') || !data.isValidUtf8())
        return fail(u"not a text file; download it instead"_s);
    return {{u"ok"_s, true}, {u"content"_s, shown(data)}};
}

QString download(const QByteArray &path)
{
    const QString unreadable = u"cannot read it"_s;
    const QString tooBig = u"over 256 MB; use SFTP for big files"_s;
    const Source source = openSource(path, kMaxTransfer, tooBig);
    if (!source.problem.isEmpty())
        return source.problem == "not a file"_L1 || source.problem == tooBig ? source.problem : unreadable;

    const std::optional<qint64> size = copyAll(source.file.get(), STDOUT_FILENO, kMaxTransfer);
    if (!size)
        return systemError();
    return *size > kMaxTransfer ? tooBig : QString();
}

} // namespace corv::files
