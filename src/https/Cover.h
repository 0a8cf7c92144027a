#pragma once

#include <string>

namespace corv::https {

// Where Apache writes its process id once it is up, and what it logs.
constexpr auto kPidFile = "/run/apache2/apache2.pid";
constexpr auto kErrorLog = "/var/log/apache2/error.log";

// What a server that is tried may write to without a change of the real one.
struct Cover
{
    std::string store;   // the folder with the certificates
    bool isFull = false; // it cannot write there at all: the real one has no room either
};

// Puts file systems in memory over Apache's run, log and lock folders, and one with what is in the store over that, in
// the mount name space of the process, which has to be one of its own. False where the kernel does not let it.
bool coverFolders(const Cover &cover);

} // namespace corv::https
