#include "ctl/Turn.h"

#include "ctl/Interrupt.h"
#include "ctl/Session.h"

#include <QFile>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

Fd takeTurn(const QString &path, const QString &other, QString *problem)
{
    constexpr mode_t kFileMode = 0600;
    problem->clear();
    Fd file(::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (file && ::flock(file.get(), LOCK_EX | LOCK_NB) == 0)
        return file;
    if (file && errno == EWOULDBLOCK) {
        note(u"%1 goes on; waiting for its end"_s.arg(other));
        int locked = -1;
        do {
            locked = ::flock(file.get(), LOCK_EX);
        } while (locked != 0 && errno == EINTR && !interrupted());
        if (locked == 0)
            return file;
        if (interrupted())
            return {};
    }
    *problem = u"%1 cannot be locked: %2"_s.arg(path, QString::fromLocal8Bit(std::strerror(errno)));
    return {};
}

bool isTurnTaken(const QString &path)
{
    const Fd file(::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    return file && ::flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

} // namespace corv::ctl
