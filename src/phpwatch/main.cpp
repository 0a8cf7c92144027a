// Ends processes of PHP pools that stay stopped. Any user may stop his own, and PHP of all accounts would wait for one
// that was stopped while it wrote into the cache that all share. It runs for as long as the server does, asks nobody
// and waits for nothing but the time.

#include "common/StoppedPhp.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <pwd.h>

namespace {

// Between two looks. Whoever has his process go on for a moment in a rhythm of his own cannot know when the next one
// is; but he who follows what the kernel tells everybody of this process can.
constexpr int kLeastMs = 1000;
constexpr int kMostMs = 5000;

// One that is seen stopped again within this time is ended.
constexpr std::chrono::minutes kRemembered{1};

using Clock = std::chrono::steady_clock;

struct Sighting
{
    corv::php::StoppedProcess process;
    Clock::time_point at;
};

void tell(const corv::php::StoppedProcess &process)
{
    const passwd *const user = ::getpwuid(process.user);
    (void)std::fprintf(stderr,
                       "<4>account %s: ended the PHP process %d, which was stopped and may have held up all others\n",
                       user ? user->pw_name : std::to_string(process.user).c_str(), process.pid);
}

} // namespace

int main()
{
    std::random_device source;
    std::uniform_int_distribution<int> pause(kLeastMs, kMostMs);
    std::vector<Sighting> seen;
    while (true) {
        const Clock::time_point now = Clock::now();
        std::erase_if(seen, [&](const Sighting &sighting) { return now - sighting.at > kRemembered; });
        for (const corv::php::StoppedProcess &process : corv::php::stoppedProcesses()) {
            const bool isKnown = std::any_of(seen.cbegin(), seen.cend(),
                                             [&](const Sighting &sighting) { return sighting.process == process; });
            if (!isKnown)
                seen.push_back({process, now});
            else if (corv::php::endStopped(process))
                tell(process);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(pause(source)));
    }
}
