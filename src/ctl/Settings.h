#pragma once

#include <QByteArray>
#include <QString>

namespace corv::ctl {

struct Options;

// The agent's settings file: the option --config, else the environment variable CORV_CONFIG, else the usual place.
QString settingsPath(const Options &options);

// Where the agent listens: the option --socket, else the setting agent/socket, else the usual place.
QByteArray socketPath(const Options &options);

} // namespace corv::ctl
