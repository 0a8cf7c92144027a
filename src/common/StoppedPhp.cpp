#include "common/StoppedPhp.h"

#include "common/Fd.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <csignal>
#include <memory>
#include <sstream>

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace corv::php {
namespace {

constexpr size_t kMostBytes = 4096; // a line of stat, and of status all that is asked for
constexpr std::string_view kMaster = "php-fpm";

// Numbers of the fields behind the name, of which the state is the first.
constexpr size_t kParentField = 1;
constexpr size_t kBeganField = 19;
constexpr size_t kFields = 20;

template <typename Number>
std::optional<Number> toNumber(std::string_view text)
{
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        return {};
    return number;
}

// The beginning of a small file of the kernel's; empty where it cannot be read.
std::string textOf(const std::string &path)
{
    const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text(kMostBytes, '\0');
    const ssize_t length = file ? ::read(file.get(), text.data(), text.size()) : 0;
    text.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return text;
}

std::optional<ProcessState> stateOf(const std::string &folder)
{
    return parseProcessState(textOf(folder + "/stat"));
}

// The first number of a line of status, such as the real user id of the line "Uid:".
std::optional<std::uint32_t> statusNumber(const std::string &status, std::string_view key)
{
    std::istringstream lines(status);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with(key))
            continue;
        std::istringstream words(line.substr(key.size()));
        std::string word;
        words >> word;
        return toNumber<std::uint32_t>(word);
    }
    return {};
}

bool isRoots(const std::string &proc, pid_t pid)
{
    return statusNumber(textOf(proc + '/' + std::to_string(pid) + "/status"), "Uid:") == 0U;
}

// The user of the process in that folder where it is a pool's; nothing otherwise. Its own name its user might change,
// that of root's process he cannot.
std::optional<uid_t> poolUser(const std::string &proc, const std::string &folder, const ProcessState &state)
{
    const std::optional<ProcessState> parent = stateOf(proc + '/' + std::to_string(state.parent));
    if (!parent || !parent->name.starts_with(kMaster) || !isRoots(proc, state.parent))
        return {};
    const std::string status = textOf(folder + "/status");
    // An administrator who follows what a page does holds it for moments, and may do so.
    const std::optional<std::uint32_t> tracer = statusNumber(status, "TracerPid:");
    if (state.state == 't' && tracer && isRoots(proc, static_cast<pid_t>(*tracer)))
        return {};
    return statusNumber(status, "Uid:");
}

bool isStopped(const ProcessState &state)
{
    return state.state == 'T' || state.state == 't';
}

} // namespace

std::optional<ProcessState> parseProcessState(std::string_view line)
{
    const size_t name = line.find('(');
    const size_t end = line.rfind(") ");
    if (name == std::string_view::npos || end == std::string_view::npos || end < name)
        return {};
    std::array<std::string_view, kFields> fields;
    std::string_view rest = line.substr(end + 2);
    for (std::string_view &field : fields) {
        field = rest.substr(0, rest.find(' '));
        if (field.empty())
            return {};
        rest.remove_prefix(std::min(rest.size(), field.size() + 1));
    }
    const std::optional<pid_t> parent = toNumber<pid_t>(fields[kParentField]);
    const std::optional<std::uint64_t> began = toNumber<std::uint64_t>(fields[kBeganField]);
    if (fields[0].size() != 1 || !parent || !began)
        return {};
    return ProcessState{std::string(line.substr(name + 1, end - name - 1)), fields[0][0], *parent, *began};
}

std::vector<StoppedProcess> stoppedProcesses(const std::string &proc)
{
    std::vector<StoppedProcess> stopped;
    const std::unique_ptr<DIR, int (*)(DIR *)> folder(::opendir(proc.c_str()), ::closedir);
    while (const dirent *entry = folder ? ::readdir(folder.get()) : nullptr) {
        const std::optional<pid_t> pid = toNumber<pid_t>(entry->d_name);
        if (!pid)
            continue;
        const std::string path = proc + '/' + entry->d_name;
        const std::optional<ProcessState> state = stateOf(path);
        if (!state || !isStopped(*state))
            continue;
        if (const std::optional<uid_t> user = poolUser(proc, path, *state))
            stopped.push_back({*pid, state->began, *user});
    }
    return stopped;
}

bool endStopped(const StoppedProcess &process)
{
    const Fd handle(static_cast<int>(::syscall(SYS_pidfd_open, process.pid, 0)));
    // The handle is of whoever has the id now; from here on it can be no other.
    const std::optional<ProcessState> state = stateOf("/proc/" + std::to_string(process.pid));
    if (!state || state->began != process.began || !isStopped(*state))
        return false;
    // A kernel without such handles leaves a moment in which the id could become another's.
    return handle ? ::syscall(SYS_pidfd_send_signal, handle.get(), SIGKILL, nullptr, 0) == 0
                  : ::kill(process.pid, SIGKILL) == 0;
}

} // namespace corv::php
