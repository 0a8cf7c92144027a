/* Asks the agent for a ping and prints the reply line: as little as a process can do for that. */
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    static const char request[] = "{\"cmd\":\"ping\"}\n";
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    (void)snprintf(address.sun_path, sizeof address.sun_path, "%s", argc > 1 ? argv[1] : "/run/corvane/agent.sock");
    const int agent = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(agent, (const struct sockaddr *)&address, sizeof address) != 0 ||
        write(agent, request, sizeof request - 1) != (ssize_t)(sizeof request - 1)) {
        close(agent);
        return 1;
    }

    char reply[4096] = "";
    size_t size = 0;
    while (size < sizeof reply && !memchr(reply, '\n', size)) {
        const ssize_t count = read(agent, reply + size, sizeof reply - size);
        if (count <= 0)
            break;
        size += (size_t)count;
    }
    close(agent);
    return size > 0 && write(STDOUT_FILENO, reply, size) == (ssize_t)size ? 0 : 1;
}
