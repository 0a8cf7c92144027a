// gzip, between pipes that hold more. tar makes them of 64 KiB, of which an igzip takes and gives several at once: tar
// and it would wait for each other in turns instead of working at the same time.
//
// What goes into a file is written by this program, since igzip does not look at what becomes of its last 4 KiB: on a
// full disk it says that all is well, and a small archive is empty.
//
// Lies in a folder of PATH by itself and hands over to the gzip that PATH has behind that folder.

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kPipeBytes = 1'048'576; // the most that a kernel lets every user have
constexpr size_t kPathBytes = 4096;
constexpr int kSignalled = 128; // and the signal's number, as a shell has it

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

// Becomes the gzip behind this one. Returns where there is none.
void becomeNext(char *words[])
{
    const char *path = std::getenv("PATH");
    const std::string rest = path ? behind(path, ownFolder()) : std::string();
    if (!rest.empty() && ::setenv("PATH", rest.c_str(), 1) == 0)
        ::execvp("gzip", words);
    ::execv("/usr/bin/gzip", words);
    std::perror("gzip");
}

bool isPipe(int descriptor)
{
    struct stat status = {};
    return ::fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode);
}

bool writeAll(const char *data, size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(STDOUT_FILENO, data, size);
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0) {
            data += written;
            size -= static_cast<size_t>(written);
        }
    }
    return true;
}

// Writes all that comes out of a pipe to standard output, which it closes: some file systems say only then that there
// is no room. Returns whether all of it is there, with errno where it is not.
bool passOn(int from)
{
    std::vector<char> piece(kPipeBytes);
    for (;;) {
        const ssize_t size = ::read(from, piece.data(), piece.size());
        if (size == 0)
            return ::close(STDOUT_FILENO) == 0;
        if (size < 0 ? errno != EINTR : !writeAll(piece.data(), static_cast<size_t>(size)))
            return false;
    }
}

// Runs the next gzip with a pipe in the place of standard output. Returns the exit code: its own, or a failure where
// what it gave could not be written.
int runNext(char *words[])
{
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        std::perror("gzip");
        return EXIT_FAILURE;
    }
    (void)::fcntl(ends[1], F_SETPIPE_SZ, kPipeBytes);
    const pid_t child = ::fork();
    if (child < 0) {
        std::perror("gzip");
        return EXIT_FAILURE;
    }
    if (child == 0) {
        (void)::dup2(ends[1], STDOUT_FILENO);
        becomeNext(words);
        std::_Exit(EXIT_FAILURE);
    }

    (void)::close(ends[1]);
    (void)::close(STDIN_FILENO); // whoever writes to it is to learn of the other's end
    const bool isWritten = passOn(ends[0]);
    if (!isWritten)
        std::perror("gzip: stdout");
    (void)::close(ends[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!isWritten)
        return EXIT_FAILURE;
    return WIFEXITED(status) ? WEXITSTATUS(status) : kSignalled + WTERMSIG(status);
}

} // namespace

int main(int /*count*/, char *words[])
{
    for (const int end : {STDIN_FILENO, STDOUT_FILENO})
        (void)::fcntl(end, F_SETPIPE_SZ, kPipeBytes); // fails for what is no pipe, which is as well

    if (!isPipe(STDOUT_FILENO))
        return runNext(words);
    becomeNext(words);
    return EXIT_FAILURE;
}
