#include "ctl/offsite/Lock.h"

#include "ctl/offsite/State.h"

#include <QFile>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

Fd lockOffsite(bool waits, QString *problem)
{
    constexpr mode_t kFolderMode = 0700;
    constexpr mode_t kFileMode = 0600;
    (void)::mkdir(QFile::encodeName(kStateFolder).constData(), kFolderMode);
    const QByteArray path = QFile::encodeName(kStateFolder + u"/lock"_s);
    Fd file(::open(path.constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (file && ::flock(file.get(), waits ? LOCK_EX : LOCK_EX | LOCK_NB) == 0)
        return file;
    *problem = errno == EWOULDBLOCK ? u"another run, check or drill goes on: systemctl status corv-offsite"_s
                                    : u"%1 cannot be locked: %2"_s.arg(QFile::decodeName(path),
                                                                       QString::fromLocal8Bit(std::strerror(errno)));
    return {};
}

} // namespace corv::ctl
