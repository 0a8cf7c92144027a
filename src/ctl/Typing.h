#pragma once

#include "ctl/Command.h"

#include <QString>

#include <vector>

namespace corv::ctl {

// What is wrong with the words of a command line, and what was probably meant.
struct Mistake
{
    QString problem; // a sentence; empty where the words name a command, or begin one
    QString hint;
};

// Looks at the words that name a command, before or among the options for all commands. Whatever else is wrong with
// the line is not looked at.
Mistake mistakeIn(const std::vector<Command> &commands, const std::vector<Parameter> &options, int argc,
                  const char *const *argv);

} // namespace corv::ctl
