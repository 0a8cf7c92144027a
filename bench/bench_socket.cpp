// Round trips and batches on the agent's socket, beside a bare epoll server that answers a constant and a D-Bus broker.
// Usage: bench_socket AGENT-EXECUTABLE

#include "bench.h"

#include <dbus/dbus.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kRounds = 200;
constexpr int kPerRound = 100;
constexpr int kBatch = 64;
const std::string kRequest = "{\"cmd\":\"ping\"}\n";
const std::string kReply = "{\"ok\":true,\"version\":\"0.1\"}\n";

int address(const std::string &path, sockaddr_un *result)
{
    result->sun_family = AF_UNIX;
    std::strncpy(result->sun_path, path.c_str(), sizeof result->sun_path - 1);
    return ::socket(AF_UNIX, SOCK_STREAM, 0);
}

int connectTo(const std::string &path)
{
    for (int attempt = 0; attempt < 5000; ++attempt) {
        sockaddr_un to = {};
        const int fd = address(path, &to);
        if (::connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) == 0)
            return fd;
        ::close(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::perror("connect");
    std::exit(1);
}

// The least that answers each request as soon as it has it: one read, and one write of a constant for each line.
[[noreturn]] void serveConstant(const std::string &path)
{
    sockaddr_un at = {};
    const int listener = address(path, &at);
    if (::bind(listener, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0 || ::listen(listener, 16) != 0)
        std::exit(1);
    const int poller = ::epoll_create1(0);
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = listener;
    ::epoll_ctl(poller, EPOLL_CTL_ADD, listener, &event);
    static char buffer[65536];
    for (;;) {
        if (::epoll_wait(poller, &event, 1, -1) != 1)
            continue;
        if (event.data.fd == listener) {
            event.events = EPOLLIN;
            event.data.fd = ::accept(listener, nullptr, nullptr);
            ::epoll_ctl(poller, EPOLL_CTL_ADD, event.data.fd, &event);
            continue;
        }
        const ssize_t count = ::read(event.data.fd, buffer, sizeof buffer);
        if (count <= 0) {
            ::close(event.data.fd);
            continue;
        }
        for (auto lines = std::count(buffer, buffer + count, '\n'); lines > 0; --lines) {
            if (::write(event.data.fd, kReply.data(), kReply.size()) < 0)
                std::exit(1);
        }
    }
}

void exchange(int fd, const std::string &requests, size_t replies)
{
    static char buffer[65536];
    if (::write(fd, requests.data(), requests.size()) != static_cast<ssize_t>(requests.size()))
        std::exit(1);
    for (size_t left = replies * kReply.size(); left > 0;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count <= 0) {
            (void)std::fprintf(stderr, "the server hung up\n");
            std::exit(1);
        }
        left -= static_cast<size_t>(count);
    }
}

DBusConnection *sessionBus()
{
    DBusError error = DBUS_ERROR_INIT;
    DBusConnection *bus = dbus_bus_get_private(DBUS_BUS_SESSION, &error);
    if (!bus)
        (void)std::fprintf(stderr, "no D-Bus session: %s\n", error.message);
    return bus;
}

void dbusPing(DBusConnection *bus)
{
    DBusMessage *call = dbus_message_new_method_call("org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer", "Ping");
    DBusMessage *reply = dbus_connection_send_with_reply_and_block(bus, call, -1, nullptr);
    dbus_message_unref(call);
    if (!reply)
        std::exit(1);
    dbus_message_unref(reply);
}

pid_t startAgent(const char *executable, const std::string &folder)
{
    std::ofstream(folder + "/settings") << "[agent]\nsocket=" << folder << "/agent.sock\n";
    const pid_t child = ::fork();
    if (child != 0)
        return child;
    ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
    ::execl(executable, executable, "--config", (folder + "/settings").c_str(), nullptr);
    _exit(127);
}

// A wake-up across cores costs several times what a server does for a ping, so where the scheduler happens to put
// client and server would decide the ratio. Each comparison is made twice: on cores of their own, and on one core
// together.
void runOn(pid_t process, int core)
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    ::sched_setaffinity(process, sizeof cores, &cores);
}

struct Medians
{
    double agentPing, barePing, busPing, agentBatch, bareBatch;
};

Medians measure(int toAgent, int toBare, DBusConnection *bus)
{
    std::string batch;
    for (int i = 0; i < kBatch; ++i)
        batch += kRequest;
    std::vector<double> agentPings, barePings, busPings = {0}, agentBatches, bareBatches;
    for (int round = 0; round < kRounds; ++round) {
        for (int i = 0; i < kPerRound; ++i)
            agentPings.push_back(bench::microseconds([&] { exchange(toAgent, kRequest, 1); }));
        for (int i = 0; i < kPerRound; ++i)
            barePings.push_back(bench::microseconds([&] { exchange(toBare, kRequest, 1); }));
        for (int i = 0; bus && i < kPerRound; ++i)
            busPings.push_back(bench::microseconds([&] { dbusPing(bus); }));
        for (int i = 0; i < kPerRound / 10; ++i)
            agentBatches.push_back(bench::microseconds([&] { exchange(toAgent, batch, kBatch); }));
        for (int i = 0; i < kPerRound / 10; ++i)
            bareBatches.push_back(bench::microseconds([&] { exchange(toBare, batch, kBatch); }));
    }
    return {bench::median(agentPings), bench::median(barePings), bench::median(busPings), bench::median(agentBatches),
            bench::median(bareBatches)};
}

void report(const Medians &m, const std::string &where, const std::string &pingLimit)
{
    bench::row("`ping` round trip against a bare epoll server, " + where, bench::number(m.agentPing, " µs", 1),
               bench::number(m.barePing, " µs", 1), bench::number(m.agentPing / m.barePing), pingLimit);
    bench::row("`ping` round trip against a D-Bus ping, " + where, bench::number(m.agentPing, " µs", 1),
               bench::number(m.busPing, " µs", 1), bench::number(m.agentPing / m.busPing), "none");
    bench::row("64 requests in one write against a bare epoll server, " + where, bench::number(m.agentBatch, " µs", 1),
               bench::number(m.bareBatch, " µs", 1), bench::number(m.agentBatch / m.bareBatch), "10");
}

} // namespace

int main(int argc, char **argv)
{
    char pattern[] = "/tmp/corv-bench-XXXXXX";
    const std::string folder = ::mkdtemp(pattern);
    const pid_t bare = ::fork();
    if (bare == 0)
        serveConstant(folder + "/bare.sock");
    const pid_t agent = startAgent(argc > 1 ? argv[1] : "build/bin/corv-agent", folder);
    const int toAgent = connectTo(folder + "/agent.sock");
    const int toBare = connectTo(folder + "/bare.sock");
    DBusConnection *bus = sessionBus();
    const char *named = std::getenv("DBUS_SESSION_BUS_PID");
    const pid_t broker = named ? static_cast<pid_t>(std::strtol(named, nullptr, 10)) : 0;

    for (const int core : {1, 0}) {
        runOn(0, 0);
        runOn(agent, core);
        runOn(bare, core);
        runOn(broker, broker != 0 ? core : 0);
        report(measure(toAgent, toBare, bus), core == 0 ? "one core" : "two cores", core == 0 ? "none" : "1.5");
    }

    ::kill(agent, SIGTERM);
    ::kill(bare, SIGTERM);
    ::waitpid(agent, nullptr, 0);
    ::waitpid(bare, nullptr, 0);
    ::unlink((folder + "/settings").c_str());
    ::unlink((folder + "/bare.sock").c_str());
    ::rmdir(folder.c_str());
}
