#pragma once

#include <QStringList>

namespace corv::ctl {

struct Session;

// Runs a command of corvctl's on the other server that the session's options name, and prints what it printed there:
// with --json its line, with --plain nothing. words are the command and its arguments; the shell over there takes them
// as they stand. It is waited for so many seconds, where the options name no time. Gives the exit status that it ended
// with, after saying on standard error why that is not 0.
int relayThere(const Session &session, const QStringList &words, int seconds);

} // namespace corv::ctl
