#pragma once

#include <QString>

class QCommandLineParser;
class QSettings;

namespace corv {

// Adds the option that names the settings file, -c or --config.
void addConfigOption(QCommandLineParser &parser);

// The path of the settings file: the option's value, else the environment variable CORV_CONFIG, else
// /etc/corvane/corvane.ini. Empty, with a critical log line, when that path is no regular file (links to one are).
QString configPath(const QCommandLineParser &parser);

// The text under key, or defaultText where the key is absent. A key that is present and empty gives an empty text, and
// a text that the INI format splits at unquoted commas is given back with its commas.
QString textSetting(const QSettings &settings, const QString &key, const QString &defaultText = {});

} // namespace corv
