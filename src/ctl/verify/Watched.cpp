#include "ctl/verify/Watched.h"

#include "common/Child.h"
#include "ctl/verify/Reader.h"

#include <QDeadlineTimer>
#include <QProcess>
#include <QProcessEnvironment>

#include <algorithm>

#include <sys/resource.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kLookMs = 500;
constexpr qsizetype kKeptErrors = 65'536;

void prepare(QProcess &process, int file, const Bounds &bounds, const QMap<QString, QString> &environment)
{
    prepareChild(process);
    QProcessEnvironment variables = process.processEnvironment();
    variables.insert(u"HOME"_s, u"/"_s);
    for (auto entry = environment.cbegin(); entry != environment.cend(); ++entry)
        variables.insert(entry.key(), entry.value());
    process.setProcessEnvironment(variables);
    process.setWorkingDirectory(u"/"_s); // root's own folder is closed to it
    // Opened anew, and so from its beginning, whatever has been read of it.
    if (file >= 0)
        process.setStandardInputFile(u"/proc/self/fd/%1"_s.arg(file));
    const auto bytes = static_cast<rlim_t>(bounds.memoryBytes);
    process.setChildProcessModifier([bytes, before = process.childProcessModifier()] {
        const rlimit limit = {bytes, bytes};
        ::setrlimit(RLIMIT_AS, &limit);
        before();
    });
}

} // namespace

Ended watchAsReader(const QStringList &program, int file, const QByteArray &input, const Bounds &bounds,
                    const Watch &watch, const QMap<QString, QString> &environment)
{
    QProcess process;
    prepare(process, file, bounds, environment);
    Ended ended;
    if (!watch.output)
        process.setStandardOutputFile(QProcess::nullDevice());
    QObject::connect(&process, &QProcess::readyReadStandardOutput, &process,
                     [&] { watch.output(process.readAllStandardOutput()); });
    QObject::connect(&process, &QProcess::readyReadStandardError, &process, [&] {
        const QByteArray more = process.readAllStandardError();
        ended.errors += more.left(std::max<qsizetype>(kKeptErrors - ended.errors.size(), 0));
    });

    process.start(u"setpriv"_s, readerCommand(program));
    if (!process.waitForStarted()) {
        ended.errors = "setpriv: cannot start";
        return ended;
    }
    if (file < 0) {
        process.write(input);
        process.closeWriteChannel();
    }
    const QDeadlineTimer deadline(bounds.milliseconds);
    while (process.state() != QProcess::NotRunning && !process.waitForFinished(kLookMs)) {
        ended.tookTooLong = deadline.hasExpired();
        ended.wasStopped = watch.goesOn && !watch.goesOn();
        if (!ended.tookTooLong && !ended.wasStopped)
            continue;
        killGroup(process);
        return ended;
    }
    ended.succeeded = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    return ended;
}

} // namespace corv::ctl
