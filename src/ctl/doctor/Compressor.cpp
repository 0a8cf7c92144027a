#include "ctl/doctor/Compressor.h"

#include "common/Environment.h"
#include "common/Run.h"
#include "common/TimedRun.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QSysInfo>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;
constexpr int kTrialMs = 30'000;
constexpr qint64 kTrialBytes = 16'777'216;
// A home is read from a disk, by tar, on a server that serves: beside what the compressor does alone.
constexpr qint64 kShare = 2;
const QStringList kUnits = {u"corv-agent.service"_s, u"corv-backup.service"_s};
const auto kGzip = QString::fromLatin1(kToolsFolder) + u"/gzip"_s;

bool hasTools(const QString &path)
{
    return path.split(u':').first() == QLatin1StringView(kToolsFolder);
}

// Something between a text and a picture, the same each time: words of a small vocabulary, and noise between them.
QByteArray trialData()
{
    QByteArray data;
    data.reserve(kTrialBytes + 64);
    quint32 state = 1;
    const auto next = [&state] { return state = state * 1'664'525U + 1'013'904'223U; };
    while (data.size() < kTrialBytes) {
        data += "word" + QByteArray::number(next() >> 22U) + ' ';
        for (int i = 0; i < 4; ++i)
            data += static_cast<char>(next() >> 24U);
    }
    return data;
}

} // namespace

Compressor readCompressor()
{
    Compressor found;
    // As debian/control has them.
    static const QStringList architectures = {u"x86_64"_s,  u"arm64"_s,   u"mips64"_s,
                                              u"power64"_s, u"riscv64"_s, u"s390x"_s};
    found.canHaveIsal = architectures.contains(QSysInfo::currentCpuArchitecture());
    found.hasIgzip = QFileInfo(kGzip).isExecutable();
    for (const QString &unit : kUnits) {
        const Outcome shown =
            runWithin(kToolMs, u"systemctl"_s, {u"show"_s, u"-p"_s, u"Environment"_s, u"--value"_s, unit});
        if (shown.succeeded)
            found.paths.insert(unit, pathIn(shown.output));
    }
    return found;
}

bool isFast(const Compressor &compressor)
{
    return compressor.hasIgzip && std::all_of(compressor.paths.cbegin(), compressor.paths.cend(), hasTools);
}

QList<Finding> checkCompressor(const Compressor &compressor)
{
    QList<Finding> findings;
    if (!compressor.hasIgzip && compressor.canHaveIsal) {
        findings.append({Level::Note,
                         u"isal is not installed, so that backups and deletions take up to ten times as long"_s,
                         u"apt-get install -y isal"_s});
    }
    for (auto unit = compressor.paths.cbegin(); unit != compressor.paths.cend(); ++unit) {
        if (unit.value().isEmpty() || hasTools(unit.value()))
            continue;
        findings.append(
            {Level::Note,
             u"the PATH of %1 was changed and does not begin with %2 any more, so that its archives take up "
             "to ten times as long"_s.arg(unit.key(), QLatin1StringView(kToolsFolder)),
             u"systemctl cat "_s + unit.key()});
    }
    return findings;
}

qint64 measureCompressor(const Compressor &compressor)
{
    hosting::Streams streams;
    streams.input = trialData();
    hosting::Surroundings surroundings;
    surroundings.milliseconds = kTrialMs;
    QElapsedTimer clock;
    clock.start();
    if (!hosting::runWith(isFast(compressor) ? kGzip : u"gzip"_s, {}, streams, surroundings).isEmpty())
        return 0;
    return kTrialBytes * 1'000 / std::max<qint64>(clock.elapsed(), 1) / kShare;
}

QString pathIn(const QByteArray &environment)
{
    for (const QByteArray &word : environment.simplified().split(' ')) {
        if (word.startsWith("PATH="))
            return QString::fromUtf8(word.sliced(5));
    }
    return {};
}

} // namespace corv::ctl
