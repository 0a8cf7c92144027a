// gzip, between pipes that hold more. tar makes them of 64 KiB, of which an igzip takes and gives several at once: tar
// and it would wait for each other in turns instead of working at the same time.
//
// Lies in a folder of PATH by itself and hands over to the gzip that PATH has behind that folder.

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kPipeBytes = 1'048'576; // the most that a kernel lets every user have
constexpr size_t kPathBytes = 4096;

// The folder that this program lies in; empty where the kernel does not tell.
std::string ownFolder()
{
    std::array<char, kPathBytes> path{};
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
    const std::string_view program(path.data(), length > 0 ? static_cast<size_t>(length) : 0);
    return std::string(program.substr(0, program.find_last_of('/') + 1));
}

// What of a PATH comes behind the last mention of a folder, which ends in a slash; empty when it is not mentioned.
std::string behind(std::string_view path, std::string_view folder)
{
    std::string rest;
    for (size_t end = path.find(':'); end != std::string_view::npos; end = path.find(':')) {
        const std::string entry(path.substr(0, end));
        path.remove_prefix(end + 1);
        if (entry + '/' == folder)
            rest = path;
    }
    return rest;
}

} // namespace

int main(int /*count*/, char *words[])
{
    for (const int end : {STDIN_FILENO, STDOUT_FILENO})
        (void)::fcntl(end, F_SETPIPE_SZ, kPipeBytes); // fails for what is no pipe, which is as well

    const char *path = std::getenv("PATH");
    const std::string rest = path ? behind(path, ownFolder()) : std::string();
    if (!rest.empty() && ::setenv("PATH", rest.c_str(), 1) == 0)
        ::execvp("gzip", words);
    ::execv("/usr/bin/gzip", words);
    std::perror("gzip");
    return EXIT_FAILURE;
}
