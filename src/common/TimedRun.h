#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

namespace corv {

// What became of a program.
struct Outcome
{
    bool finished = false;  // within its time; false too when it could not be started
    bool succeeded = false; // finished by itself, with exit code 0
    QByteArray output;      // its standard output, as far as it came
    QByteArray errors;      // its standard error, likewise
};

// Runs program (a name on PATH) with exactly these arguments and no input, for the few tools that have a time-out of
// their own instead of the shared runner's. Past the time, in milliseconds, it and all that it started is killed. It
// has these variables beside this process's own.
Outcome runWithin(int milliseconds, const QString &program, const QStringList &args,
                  const QMap<QString, QString> &environment = {});

} // namespace corv
