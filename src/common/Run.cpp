#include "common/Run.h"

#include "common/Child.h"
#include "common/OwnMounts.h"
#include "common/TenantMounts.h"

#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>

#include <csignal>
#include <limits>
#include <utility>

#include <sys/resource.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

#ifdef CORV_SHORT_TIMEOUTS
constexpr int kStartMs = 500;
constexpr int kFinishMs = 2'000;
constexpr int kUserMs = 1'000;
#else
constexpr int kStartMs = 5'000;
constexpr int kFinishMs = 600'000;
constexpr int kUserMs = 10'000;
#endif

constexpr qsizetype kDetailLength = 400;
// A tool that floods its standard error must not fill root's memory; the end of it is what matters.
constexpr qsizetype kKeptErrorBytes = 1'048'576;

constexpr auto kHomes = "/home";

void keepEnd(QByteArray &errors)
{
    if (errors.size() > 2 * kKeptErrorBytes)
        errors = errors.right(kKeptErrorBytes);
}

QString failureDetail(const QProcess &process, const QByteArray &errors)
{
    const QString text = QString::fromUtf8(errors).trimmed();
    if (text.isEmpty())
        return u"exit code %1"_s.arg(process.exitCode());
    return text.right(kDetailLength);
}

// Sends the standard streams where they belong, and sets a limit to the files that the child writes, which it cannot
// raise again.
void connectStreams(QProcess &process, const Streams &streams)
{
    if (!streams.outputPath.isEmpty())
        process.setStandardOutputFile(streams.outputPath, QIODevice::Truncate);
    else if (!streams.output)
        process.setStandardOutputFile(QProcess::nullDevice());
    if (streams.inputFile >= 0)
        process.setStandardInputFile(QProcess::nullDevice());

    const rlimit limit = {static_cast<rlim_t>(streams.maxFileSize), static_cast<rlim_t>(streams.maxFileSize)};
    const bool isLimited = streams.maxFileSize < std::numeric_limits<qint64>::max();
    process.setChildProcessModifier(
        [=, in = streams.inputFile, out = streams.outputFile, prepare = process.childProcessModifier()] {
            if (isLimited)
                ::setrlimit(RLIMIT_FSIZE, &limit);
            if (in >= 0)
                ::dup2(in, STDIN_FILENO);
            if (out >= 0)
                ::dup2(out, STDOUT_FILENO);
            prepare();
        });
}

// Sets a limit of the child's, which it cannot raise again; 0 leaves the agent's own.
void limitChild(QProcess &process, int resource, qint64 bytes)
{
    if (bytes <= 0)
        return;
    const rlimit limit = {static_cast<rlim_t>(bytes), static_cast<rlim_t>(bytes)};
    process.setChildProcessModifier([=, prepare = process.childProcessModifier()] {
        ::setrlimit(static_cast<__rlimit_resource>(resource), &limit);
        prepare();
    });
}

// Variables and limits of the child's own.
void surround(QProcess &process, const Surroundings &surroundings)
{
    if (!surroundings.environment.isEmpty()) {
        QProcessEnvironment environment = process.processEnvironment();
        for (auto entry = surroundings.environment.cbegin(); entry != surroundings.environment.cend(); ++entry)
            environment.insert(entry.key(), entry.value());
        process.setProcessEnvironment(environment);
    }
    limitChild(process, RLIMIT_STACK, surroundings.stackBytes);
    limitChild(process, RLIMIT_AS, surroundings.memoryBytes);
    if (surroundings.linksLeadNowhere || !surroundings.loginDefs.isEmpty()) {
        const QList<MountPlace> foreign = surroundings.linksLeadNowhere ? tenantMounts(kHomes) : QList<MountPlace>();
        process.setChildProcessModifier([=, closed = surroundings.linksLeadNowhere, defs = surroundings.loginDefs,
                                         prepare = process.childProcessModifier()] {
            const bool own = leaveMounts();
            // Before the homes are covered by a copy of theirs: what is mounted under a cover still holds its folder.
            if (own)
                detachMounts(foreign);
            if (own && closed)
                (void)closeLinks(kHomes);
            if (own && !defs.isEmpty())
                (void)coverFile("/etc/login.defs", defs.constData());
            prepare();
        });
    }
}

QString execute(const QString &program, const QStringList &args, const Streams &streams,
                const Surroundings &surroundings)
{
    // Found out before the attempt, since a failed one costs the process object a descriptor (Qt 6.4).
    if (QStandardPaths::findExecutable(program).isEmpty())
        return program + ": cannot start"_L1;

    QProcess process;
    prepareChild(process);
    connectStreams(process, streams);
    surround(process, surroundings);

    // Both outputs are taken over as they come: kept by the process object, they would be in memory twice at the end.
    QByteArray output;
    QByteArray errors;
    bool flooded = false;
    QObject::connect(&process, &QProcess::readyReadStandardOutput, &process, [&] {
        const QByteArray more = process.readAllStandardOutput();
        flooded = flooded || more.size() > streams.maxOutput - output.size();
        if (!flooded)
            output += more;
        else if (process.processId() > 0)
            ::kill(static_cast<pid_t>(-process.processId()), SIGKILL);
    });
    QObject::connect(&process, &QProcess::readyReadStandardError, &process, [&] {
        errors += process.readAllStandardError();
        keepEnd(errors);
    });

    process.start(program, args, QIODevice::ReadWrite);
    if (!process.waitForStarted(kStartMs)) {
        killGroup(process);
        return program + ": cannot start"_L1;
    }

    if (!streams.input.isEmpty())
        process.write(streams.input);
    process.closeWriteChannel();
    if (!waitForEnd(process, surroundings.milliseconds > 0 ? surroundings.milliseconds : kFinishMs,
                    surroundings.goesOn)) {
        killGroup(process);
        return program + ": took too long"_L1;
    }

    if (flooded)
        return {};
    if (streams.output)
        *streams.output = std::move(output);
    if (process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
        return {};
    return u"%1 failed: %2"_s.arg(program, failureDetail(process, errors));
}

} // namespace

QString run(const QString &program, const QStringList &args, const QByteArray &input, QByteArray *out,
            const QString &outputFile)
{
    Streams streams;
    streams.input = input;
    streams.output = out;
    streams.maxOutput = std::numeric_limits<qsizetype>::max();
    streams.outputPath = outputFile;
    return execute(program, args, streams, {});
}

QString runWith(const QString &program, const QStringList &args, const Streams &streams,
                const Surroundings &surroundings)
{
    return execute(program, args, streams, surroundings);
}

QString runInHomes(const QString &program, const QStringList &args, QByteArray *out)
{
    Streams streams;
    streams.output = out;
    streams.maxOutput = std::numeric_limits<qsizetype>::max();
    Surroundings surroundings;
    surroundings.linksLeadNowhere = true;
    return execute(program, args, streams, surroundings);
}

QString asUser(const QString &user, const QStringList &args, const QByteArray &input, QByteArray *out)
{
    Streams streams;
    streams.input = input;
    streams.output = out;
    streams.maxOutput = std::numeric_limits<qsizetype>::max();
    Surroundings surroundings;
    surroundings.milliseconds = kUserMs;
    return execute(u"runuser"_s, QStringList{u"-u"_s, user, u"--"_s} + args, streams, surroundings);
}

QString joined(QStringList messages)
{
    messages.removeAll(QString());
    return messages.join("; "_L1);
}

} // namespace corv::hosting
