#include "agent/files/Copy.h"

#include "common/Fd.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/sendfile.h>

namespace corv::files {
namespace {

constexpr qint64 kChunk = 1'048'576;

// One chunk through this process's memory.
ssize_t copyChunk(int source, int target, QByteArray &chunk, qint64 size)
{
    chunk.resize(kChunk);
    const ssize_t count = ::read(source, chunk.data(), static_cast<size_t>(size));
    if (count > 0 && !writeAll(target, QByteArray::fromRawData(chunk.constData(), count)))
        return -1;
    return count;
}

} // namespace

std::optional<qint64> copyAll(int source, int target, qint64 limit)
{
    (void)::fcntl(source, F_SETPIPE_SZ, static_cast<int>(kChunk)); // fewer turns, where it is a pipe
    bool isDirect = true; // from file to file within the kernel, at a fraction of the cost
    QByteArray chunk;
    qint64 total = 0;
    while (total <= limit) {
        const qint64 size = std::min(kChunk, limit + 1 - total);
        const ssize_t count = isDirect ? ::sendfile(target, source, nullptr, static_cast<size_t>(size))
                                       : copyChunk(source, target, chunk, size);
        if (count < 0 && isDirect && (errno == EINVAL || errno == ENOSYS)) {
            isDirect = false; // not for this kind of file
            continue;
        }
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return {};
        if (count == 0)
            break;
        total += count;
    }
    return total;
}

} // namespace corv::files
