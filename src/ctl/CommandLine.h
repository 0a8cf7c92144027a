#pragma once

#include "ctl/Command.h"
#include "ctl/Session.h"

#include <vector>

namespace corv::ctl {

// What a command line asks for: a handler with what was given to it, or, where that is null, an end with a status,
// after help or a complaint was printed.
struct Parsed
{
    Handler handler = nullptr;
    Given given = Given({});
    int status = 0;
    bool isSurvey = false; // as the command's
};

// The options that every command takes.
const std::vector<Parameter> &commonOptions();

// Reads a command line: the options for all commands into options, the rest into the result.
Parsed parseCommandLine(const std::vector<Command> &commands, int argc, const char *const *argv, Options *options);

} // namespace corv::ctl
