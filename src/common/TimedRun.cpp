#include "common/TimedRun.h"

#include "common/Child.h"

#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>

namespace corv {

Outcome runWithin(int milliseconds, const QString &program, const QStringList &args,
                  const QMap<QString, QString> &environment)
{
    // Found out before the attempt, since a failed one costs the process object a descriptor (Qt 6.4).
    if (QStandardPaths::findExecutable(program).isEmpty())
        return {};

    QProcess process;
    prepareChild(process);
    process.setStandardInputFile(QProcess::nullDevice());
    if (!environment.isEmpty()) {
        QProcessEnvironment variables = process.processEnvironment();
        for (auto entry = environment.cbegin(); entry != environment.cend(); ++entry)
            variables.insert(entry.key(), entry.value());
        process.setProcessEnvironment(variables);
    }
    process.start(program, args);
    const bool finished = process.waitForFinished(milliseconds);
    if (!finished)
        killGroup(process);
    const bool succeeded = finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    return {finished, succeeded, process.readAllStandardOutput(), process.readAllStandardError()};
}

} // namespace corv
