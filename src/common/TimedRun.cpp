#include "common/TimedRun.h"

#include "common/Child.h"

#include <QProcess>
#include <QStandardPaths>

namespace corv {

Outcome runWithin(int milliseconds, const QString &program, const QStringList &args)
{
    // Found out before the attempt, since a failed one costs the process object a descriptor (Qt 6.4).
    if (QStandardPaths::findExecutable(program).isEmpty())
        return {};

    QProcess process;
    prepareChild(process);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(program, args);
    const bool finished = process.waitForFinished(milliseconds);
    if (!finished)
        killGroup(process);
    const bool succeeded = finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    return {finished, succeeded, process.readAllStandardOutput(), process.readAllStandardError()};
}

} // namespace corv
