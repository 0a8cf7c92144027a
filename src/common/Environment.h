#pragma once

#include <QMap>
#include <QProcessEnvironment>
#include <QString>

namespace corv {

// Settles what the tools inherit that this process starts: English messages whatever the server's locale, for their
// output is parsed, and none of the variables that would turn psql or a dynamic loader elsewhere. PATH and the time
// zone stay with whoever started us.
void cleanEnvironment();

// A folder of PATH with tools of our own under the names of the system's: a gzip that is much faster, and knows few of
// the options that others give it.
constexpr auto kToolsFolder = "/usr/libexec/corvane/tools";

// A folder with a gzip that is the one behind it on PATH, with larger pipes (src/pipes).
constexpr auto kPipesFolder = "/usr/libexec/corvane/pipes";

// What a program gets that this process starts: its own environment, but for kToolsFolder, which no program finds that
// is not known to manage with what lies there. That goes for accounts' programs and packages' scripts above all.
QProcessEnvironment childEnvironment();

// What lets a program find kToolsFolder all the same, and kPipesFolder before it, where this process was started with
// the former on PATH; nothing otherwise.
QMap<QString, QString> toolsVariables();

} // namespace corv
