#pragma once

#include <QByteArray>

namespace corv::ctl {

struct Options;

// Where the agent listens: the option --socket, else the setting agent/socket, else the usual place.
QByteArray socketPath(const Options &options);

} // namespace corv::ctl
