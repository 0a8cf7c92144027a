// Runs programs as whole processes, in turn and many times, and prints the median time of each in microseconds:
// bench_ctl ROUNDS PROGRAM ARGUMENT... [-- PROGRAM ARGUMENT...]... Their output is thrown away; each has to succeed.

#include "bench.h"

#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Ends the benchmark when the program does not do its work.
void run(char **program)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t process = 0;
    int status = 0;
    if (posix_spawnp(&process, program[0], &actions, nullptr, program, environ) != 0 ||
        ::waitpid(process, &status, 0) != process || status != 0) {
        (void)std::fprintf(stderr, "%s failed\n", program[0]);
        std::exit(1);
    }
    posix_spawn_file_actions_destroy(&actions);
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<char **> programs;
    for (int i = 1; i < argc; ++i) {
        if (i == 1 || std::strcmp(argv[i], "--") == 0) {
            if (i > 1)
                argv[i] = nullptr; // ends the arguments of the one before
            programs.push_back(argv + i + 1);
        }
    }

    const int rounds = static_cast<int>(std::strtol(argv[1], nullptr, 10));
    std::vector<std::vector<double>> times(programs.size());
    for (int round = 0; round < rounds; ++round) {
        for (size_t i = 0; i < programs.size(); ++i)
            times[i].push_back(bench::microseconds([&] { run(programs[i]); }));
    }
    for (const std::vector<double> &one : times)
        std::printf("%.1f\n", bench::median(one));
    return 0;
}
