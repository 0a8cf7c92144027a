#pragma once

#include <QString>

class QCommandLineParser;
class QSettings;
class QVariant;

namespace corv {

// Adds the option that names the settings file, -c or --config.
void addConfigOption(QCommandLineParser &parser);

// The path of the settings file: the option's value, else the environment variable CORV_CONFIG, else
// /etc/corvane/corvane.ini. Empty, with a critical log line, when that path is no regular file (links to one are).
QString configPath(const QCommandLineParser &parser);

// Whether the INI format has split a value at unquoted commas; toStringList gives its parts.
bool isList(const QVariant &value);

// The text under key, or defaultText where the key is absent. A key that is present and empty gives an empty text, and
// a text that the INI format splits at unquoted commas is given back with its commas.
QString textSetting(const QSettings &settings, const QString &key, const QString &defaultText = {});

} // namespace corv
