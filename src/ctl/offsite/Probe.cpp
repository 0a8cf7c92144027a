#include "ctl/offsite/Probe.h"

#include "common/Run.h"
#include "ctl/offsite/Secrets.h"

#include <QSysInfo>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

const auto kProbeName = u"probe"_s;
// restic tries for minutes what it is refused. A place that lets it forget has done so long before.
constexpr int kForgetMs = 30'000;

QStringList probes(const Repository &repository, QString *problem)
{
    QStringList ids;
    for (const Snapshot &one : readSnapshots(repository, problem)) {
        if (one.has(kProbeTag) && one.server == QSysInfo::machineHostName())
            ids.append(one.id);
    }
    return ids;
}

QString writeProbe(const Repository &repository, const QByteArray &content)
{
    hosting::Streams streams;
    streams.input = content;
    hosting::Surroundings surroundings;
    surroundings.environment = repository.environment;
    return hosting::runWith(
        u"restic"_s,
        resticArgs(repository, {u"backup"_s, u"--quiet"_s, u"--host"_s, QSysInfo::machineHostName(), u"--tag"_s,
                                kOurTag, u"--tag"_s, kProbeTag, u"--stdin"_s, u"--stdin-filename"_s, kProbeName}),
        streams, surroundings);
}

} // namespace

QString makeRepository(const Repository &repository)
{
    const Answered there = restic(repository, {u"cat"_s, u"config"_s, u"--no-lock"_s}, kAskMs);
    if (there.problem.isEmpty())
        return {};
    const Answered init = restic(repository, {u"init"_s}, kAskMs);
    // With another key in force it is there already, and what was said first is the reason.
    const bool isThere = init.problem.contains("already"_L1);
    return isThere ? there.problem : init.problem;
}

QString tryWriting(const Repository &repository)
{
    const QByteArray content = newKey() + '\n';
    if (const QString problem = writeProbe(repository, content); !problem.isEmpty())
        return u"nothing can be written there: "_s + problem;
    QString problem;
    const QStringList ids = probes(repository, &problem);
    if (!problem.isEmpty() || ids.isEmpty())
        return u"what was written cannot be found there: "_s + problem;
    const Answered read = restic(repository, {u"dump"_s, u"--no-lock"_s, ids.last(), u'/' + kProbeName}, kAskMs);
    if (!read.problem.isEmpty())
        return u"what was written cannot be read: "_s + read.problem;
    return read.output == content ? QString() : u"what is read there is not what was written"_s;
}

Forgetting tryForgetting(const Repository &repository, QString *problem)
{
    QStringList before = probes(repository, problem);
    if (!problem->isEmpty() || before.isEmpty()) {
        *problem = problem->isEmpty() ? u"there is nothing to try it with"_s : *problem;
        return Forgetting::Unknown;
    }
    const Answered tried = restic(repository, QStringList{u"forget"_s, u"--quiet"_s, before.last()}, kForgetMs);
    // Killed while it tried once more, it leaves its lock.
    (void)restic(repository, {u"unlock"_s, u"--quiet"_s}, kAskMs);
    const QStringList after = probes(repository, problem);
    if (!problem->isEmpty())
        return Forgetting::Unknown;
    if (!after.contains(before.last()))
        return Forgetting::Possible;
    // A place that is merely slow, or a lock, is no protection.
    for (const char *word : {"403", "405", "Forbidden", "AccessDenied", "not removed", "ermission denied"}) {
        if (tried.errors.contains(word))
            return Forgetting::Refused;
    }
    *problem = tried.problem;
    return Forgetting::Unknown;
}

} // namespace corv::ctl
