// One program through the runner, beside posix_spawn and waitpid of the same.

#include "bench.h"

#include "common/Run.h"

#include <cstdlib>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kRounds = 1000;

void spawnAndWait()
{
    pid_t child = 0;
    char name[] = "true";
    char *arguments[] = {name, nullptr};
    if (::posix_spawnp(&child, "true", nullptr, nullptr, arguments, environ) != 0 || ::waitpid(child, nullptr, 0) < 0)
        std::exit(1);
}

void runOnce()
{
    if (!corv::hosting::run(QStringLiteral("true"), {}).isEmpty())
        std::exit(1);
}

} // namespace

int main()
{
    std::vector<double> ours, reference;
    for (int i = 0; i < kRounds; ++i) {
        ours.push_back(bench::microseconds(runOnce));
        reference.push_back(bench::microseconds(spawnAndWait));
    }
    const double run = bench::median(ours);
    const double spawn = bench::median(reference);
    bench::row("one program through the runner against posix_spawn and waitpid", bench::number(run, " µs", 0),
               bench::number(spawn, " µs", 0), bench::number(run / spawn), "1.15");
}
