#pragma once

#include <span>

namespace corv::ctl {

// A command of the agent, from the protocol's description.
struct Described
{
    const char *name;
    int seconds;        // how long it may take at worst
    int secondsForEach; // and so many more for each of what its time grows with
};

// All of them, in the agent's order.
std::span<const Described> described();

// The version of the protocol, and of this program.
const char *version();

} // namespace corv::ctl
