#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

// Processes of PHP pools that somebody has stopped. All pools of one PHP version wait for each other to write into the
// cache that they share, and one that is stopped while it writes has all others wait for ever.
namespace corv::php {

// What the kernel tells of a process in /proc/PID/stat.
struct ProcessState
{
    std::string name;
    char state = ' ';
    pid_t parent = 0;
    std::uint64_t began = 0; // ticks since the system's start: tells it from a later one with its id
};

// Reads such a line, in which the name may hold anything; nothing for what is none.
std::optional<ProcessState> parseProcessState(std::string_view line);

// One process of a pool.
struct StoppedProcess
{
    pid_t pid = 0;
    std::uint64_t began = 0;
    uid_t user = 0;

    bool operator==(const StoppedProcess &) const = default;
};

// Those that are stopped, or held by a debugger that is not root's, at this moment. proc is where the kernel shows
// processes. Empty where it cannot be read.
std::vector<StoppedProcess> stoppedProcesses(const std::string &proc = "/proc");

// Kills one that is still stopped; false where it has gone, goes on, or cannot be killed.
bool endStopped(const StoppedProcess &process);

} // namespace corv::php
