#include "https/Orders.h"

#include "common/Fd.h"
#include "common/HttpsFiles.h"
#include "common/HttpsOptions.h"
#include "common/Json.h"

#include <QFile>
#include <QJsonObject>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr qsizetype kLargestJob = qsizetype{256} * 1024;
// Characters of what the authority says: it is kept for each site.
constexpr qsizetype kLongestSaid = 300;
constexpr auto kUnusable = "the authority's answer cannot be used"_L1;
constexpr qint64 kLongestPause = 86400;
constexpr qint64 kWindow = qint64{3} * 3600;
constexpr int kMostFailures = 20;
constexpr auto kJobFile = "job.json";

// Apache's user writes in that folder and the one that it is in: whatever he puts there, no link of his is followed.
Fd openStaging(const QString &domain)
{
    constexpr int flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const Fd all(::open(kStagingFolder, flags));
    return Fd(all ? ::openat(all.get(), QFile::encodeName(domain).constData(), flags) : -1);
}

} // namespace

std::optional<Job> parseJob(const QByteArray &json)
{
    const QJsonObject object = parseObject(json);
    if (!object.contains("name"_L1))
        return std::nullopt;
    const QJsonObject last = object.value("last"_L1).toObject();
    Job job{object.value("finished"_L1).toBool(), object.value("errors"_L1).toInt(), {}};
    // Of an answer that makes no sense to it Apache says less, or nothing.
    for (const auto key : {"detail"_L1, "problem"_L1}) {
        if (job.said.isEmpty())
            job.said = last.value(key).toString().left(kLongestSaid);
    }
    if (job.said.isEmpty() && job.errors > 0)
        job.said = kUnusable;
    return job;
}

std::optional<Job> readJob(const QString &domain, qint64 *writtenAt)
{
    const Fd folder = openStaging(domain);
    const Fd file(folder ? ::openat(folder.get(), kJobFile, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC) : -1);
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0)
        return std::nullopt;
    *writtenAt = status.st_mtim.tv_sec;
    // Apache writes down what the authority answers: one of any length must not pass for none.
    const std::optional<QByteArray> bytes = readWhole(file, kLargestJob);
    return bytes ? parseJob(*bytes) : Job{false, 1, kUnusable};
}

void noteJobs(State *state, const QStringList &domains, qint64 retrySeconds, qint64 now)
{
    for (const QString &domain : domains) {
        qint64 writtenAt = 0;
        const std::optional<Job> job = readJob(domain, &writtenAt);
        if (!job)
            continue;
        OrderState &order = state->orders[domain];
        if (job->finished) {
            order.failures = 0;
            order.nextAt = 0;
            order.said.clear();
            continue;
        }
        if (job->errors > 0 && writtenAt > now) {
            forgetJob(domain);
            continue;
        }
        if (job->errors == 0 || writtenAt <= order.failedAt)
            continue;
        order.failures = std::min(order.failures + 1, kMostFailures);
        order.failedAt = writtenAt;
        order.said = job->said;
        order.nextAt = writtenAt + std::min(retrySeconds << (order.failures - 1), kLongestPause);
    }
}

void forgetJob(const QString &domain)
{
    if (const Fd folder = openStaging(domain))
        (void)::unlinkat(folder.get(), kJobFile, 0); // is there or not
}

bool isDue(const OrderState &order)
{
    return order.startedAt == 0 || order.nextAt > 0;
}

int roomForOrders(const State &state, int most, qint64 now)
{
    const auto begun = std::count_if(state.orders.begin(), state.orders.end(),
                                     [&](const OrderState &order) { return order.startedAt > now - kWindow; });
    return std::max(0, most - static_cast<int>(begun));
}

qint64 secondsIn(const QString &time)
{
    const qint64 number = time.chopped(1).toLongLong();
    switch (time.back().unicode()) {
    case u'd':
        return number * 86400;
    case u'h':
        return number * 3600;
    case u'm':
        return number * 60;
    default:
        return number;
    }
}

} // namespace corv::https
