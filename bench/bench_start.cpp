// From start to listening, and memory when idle. Usage: bench_start AGENT-EXECUTABLE BARE-SERVER-EXECUTABLE

#include "bench.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kRounds = 60;

bool answers(const std::string &path)
{
    sockaddr_un to = {};
    to.sun_family = AF_UNIX;
    std::strncpy(to.sun_path, path.c_str(), sizeof to.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const bool connected = ::connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) == 0;
    ::close(fd);
    return connected;
}

// Starts a server, waits until it can be connected to, and leaves its id in child.
double startUntilListening(const std::vector<const char *> &command, const std::string &path, pid_t *child)
{
    std::vector<const char *> arguments = command;
    arguments.push_back(nullptr);
    return bench::microseconds([&] {
        if (::posix_spawn(child, arguments[0], nullptr, nullptr, const_cast<char **>(arguments.data()), environ) != 0)
            std::exit(1);
        while (!answers(path))
            std::this_thread::sleep_for(std::chrono::microseconds(50));
    });
}

void stop(pid_t child)
{
    ::kill(child, SIGTERM);
    ::waitpid(child, nullptr, 0);
}

// The sum of a field of the process's memory map, in KiB.
long memory(pid_t child, const std::string &field)
{
    std::ifstream map("/proc/" + std::to_string(child) + "/smaps_rollup");
    long sum = 0;
    for (std::string line; std::getline(map, line);) {
        if (line.rfind(field, 0) == 0)
            sum += std::strtol(line.c_str() + line.find(':') + 1, nullptr, 10);
    }
    return sum;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
        return 2;
    ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
    char pattern[] = "/tmp/corv-bench-XXXXXX";
    const std::string folder = ::mkdtemp(pattern);
    const std::string settings = folder + "/settings";
    const std::string agentSocket = folder + "/agent.sock";
    const std::string bareSocket = folder + "/bare.sock";
    std::ofstream(settings) << "[agent]\nsocket=" << agentSocket << "\n";

    std::vector<double> ours, reference;
    long resident = 0;
    long priv = 0;
    for (int i = 0; i < kRounds; ++i) {
        pid_t child = 0;
        ours.push_back(startUntilListening({argv[1], "--config", settings.c_str()}, agentSocket, &child));
        resident = memory(child, "Rss");
        priv = memory(child, "Private_Dirty");
        stop(child);
        ::unlink(bareSocket.c_str());
        reference.push_back(startUntilListening({argv[2], bareSocket.c_str()}, bareSocket, &child));
        stop(child);
    }
    const double agent = bench::median(ours);
    const double bare = bench::median(reference);
    bench::row("start to listening against a bare application object with a local socket",
               bench::number(agent / 1000, " ms"), bench::number(bare / 1000, " ms"), bench::number(agent / bare),
               "1.3");
    bench::row("resident memory when idle", bench::number(static_cast<double>(resident) / 1024, " MiB", 1), "", "",
               "16 MiB");
    bench::row("of it private (written pages)", bench::number(static_cast<double>(priv) / 1024, " MiB", 1), "", "",
               "3 MiB");

    ::unlink(settings.c_str());
    ::unlink(bareSocket.c_str());
    ::rmdir(folder.c_str());
}
