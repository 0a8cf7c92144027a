#include "agent/RequestFile.h"

#include "common/Fd.h"

#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corv {
namespace {

constexpr auto kFresh = "/run/corvane/.request";
constexpr mode_t kMode = 0640;

} // namespace

void RequestFile::clear() const
{
    (void)::unlink(kFresh);
    (void)::unlink(kInHandPath);
}

// Written beside its place and moved there: who reads it finds a whole line or none.
void RequestFile::begin(const QString &command, const QString &account, quint32 uid) const
{
    static const qint64 began = processBegan(::getpid());
    const Fd file(::open(kFresh, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
    if (!file)
        return;
    const QByteArray line = inHandLine({command, account, uid, bootMilliseconds(), ::getpid(), began});
    const bool isWritten = ::fchown(file.get(), static_cast<uid_t>(-1), m_group) == 0 &&
                           ::fchmod(file.get(), kMode) == 0 && writeAll(file.get(), line);
    if (!isWritten || ::rename(kFresh, kInHandPath) != 0)
        (void)::unlink(kFresh);
}

void RequestFile::end() const
{
    (void)::unlink(kInHandPath);
}

} // namespace corv
