/*
 * Stands in for every system tool of a sandbox: linked under each tool's name in the folder that comes first on PATH.
 * Every call is written to one shared record before anything else happens, then answered by the first rule of the rules
 * file that matches; without one the call reads its input to the end and exits with 0. sandbox.py writes the rules and
 * reads the record; docs/testing.md describes both from the test's side.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define STATE "/standins/state/"

extern char **environ;

enum { maxWords = 256 };

struct bytes
{
    char *data;
    size_t size;
};

static const char *name;
static char id[64];
static struct bytes input;
static int inputRead;

static void fail(const char *what)
{
    dprintf(2, "stand-in %s: %s: %s\n", name, what, strerror(errno));
    _exit(126);
}

static void append(struct bytes *to, const char *data, size_t size)
{
    char *grown = realloc(to->data, to->size + size + 1);
    if (!grown)
        fail("memory");
    memcpy(grown + to->size, data, size);
    grown[to->size + size] = '\0';
    to->data = grown;
    to->size += size;
}

static void text(struct bytes *to, const char *format, ...)
{
    char buffer[512];
    va_list args;
    va_start(args, format);
    const int size = vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    append(to, buffer, (size_t)size);
}

/* A JSON string whose characters are the bytes. */
static void quoted(struct bytes *to, const char *string)
{
    append(to, "\"", 1);
    for (const unsigned char *at = (const unsigned char *)string; *at; ++at) {
        if (*at < 0x20 || *at > 0x7e || *at == '"' || *at == '\\')
            text(to, "\\u%04x", *at);
        else
            append(to, (const char *)at, 1);
    }
    append(to, "\"", 1);
}

static void quotedList(struct bytes *to, char **list)
{
    append(to, "[", 1);
    for (char **at = list; *at; ++at) {
        if (at != list)
            append(to, ",", 1);
        quoted(to, *at);
    }
    append(to, "]", 1);
}

static struct bytes readAll(int fd)
{
    struct bytes all = {NULL, 0};
    char buffer[65536];
    append(&all, "", 0);
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got > 0)
            append(&all, buffer, (size_t)got);
        else if (got == 0 || errno != EINTR)
            return all;
    }
}

static int writeAll(int fd, const char *data, size_t size)
{
    while (size > 0) {
        const ssize_t done = write(fd, data, size);
        if (done < 0 && errno != EINTR)
            return -1;
        if (done > 0) {
            data += done;
            size -= (size_t)done;
        }
    }
    return 0;
}

static int openState(const char *file, int flags)
{
    char path[256];
    snprintf(path, sizeof path, STATE "%s", file);
    const int fd = open(path, flags | O_CLOEXEC, 0666);
    if (fd < 0)
        fail(path);
    if (flags & O_CREAT)
        (void)fchmod(fd, 0666); /* whoever did not create it has no right to, and need not */
    return fd;
}

static int lock(void)
{
    const int fd = openState("lock", O_RDWR);
    if (flock(fd, LOCK_EX) != 0)
        fail("lock");
    return fd;
}

static void describeFiles(struct bytes *to)
{
    append(to, "{", 1);
    DIR *folder = opendir("/proc/self/fd");
    const struct dirent *entry = NULL;
    int first = 1;
    while (folder && (entry = readdir(folder))) {
        char target[4096];
        if (entry->d_name[0] == '.' || atoi(entry->d_name) == dirfd(folder))
            continue;
        const ssize_t size = readlinkat(dirfd(folder), entry->d_name, target, sizeof target - 1);
        target[size > 0 ? size : 0] = '\0';
        text(to, "%s\"%s\":", first ? "" : ",", entry->d_name);
        quoted(to, target);
        first = 0;
    }
    if (folder)
        closedir(folder);
    append(to, "}", 1);
}

static void describeSignals(struct bytes *to)
{
    static const char *const fields[] = {"SigBlk:\t", "SigIgn:\t"};
    const int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    struct bytes status = readAll(fd);
    close(fd);
    for (size_t i = 0; i < 2; ++i) {
        const char *at = strstr(status.data, fields[i]);
        text(to, ",\"%.6s\":\"%.16s\"", fields[i], at ? at + strlen(fields[i]) : "?");
    }
}

static void record(char **argv)
{
    struct bytes line = {NULL, 0};
    char folder[4096];
    const mode_t mask = umask(0);
    umask(mask);
    text(&line, "{\"id\":\"%s\",\"name\":", id);
    quoted(&line, name);
    append(&line, ",\"argv\":", 8);
    quotedList(&line, argv);
    append(&line, ",\"env\":", 7);
    quotedList(&line, environ);
    append(&line, ",\"cwd\":", 7);
    quoted(&line, getcwd(folder, sizeof folder) ? folder : "?");
    append(&line, ",\"fds\":", 7);
    describeFiles(&line);
    describeSignals(&line);
    text(&line, ",\"uid\":%d,\"gid\":%d,\"pid\":%d,\"ppid\":%d,\"pgid\":%d,\"sid\":%d,\"umask\":%d}\n", (int)getuid(),
         (int)getgid(), (int)getpid(), (int)getppid(), (int)getpgrp(), (int)getsid(0), (int)mask);

    const int guard = lock();
    const int fd = openState("record", O_WRONLY | O_APPEND);
    if (writeAll(fd, line.data, line.size) != 0)
        fail("record");
    close(fd);
    close(guard);
    free(line.data);
}

static void readInput(void)
{
    if (inputRead)
        return;
    inputRead = 1;
    input = readAll(0);
    char file[128];
    snprintf(file, sizeof file, "input.%s", id);
    const int fd = openState(file, O_WRONLY | O_CREAT | O_EXCL);
    if (writeAll(fd, input.data, input.size) != 0)
        fail("input");
    close(fd);
}

/* Says that the call came to its end, for tests that wait for it. */
static void finished(void)
{
    char file[128];
    snprintf(file, sizeof file, "done.%s", id);
    close(openState(file, O_WRONLY | O_CREAT));
}

static void waitForFile(const char *path)
{
    const struct timespec pause = {0, 2000000};
    while (access(path, F_OK) != 0)
        nanosleep(&pause, NULL);
}

static struct bytes unhex(const char *hex)
{
    struct bytes out = {NULL, 0};
    append(&out, "", 0);
    for (; hex && hex[0] && hex[1]; hex += 2) {
        const char digits[3] = {hex[0], hex[1], '\0'};
        const char byte = (char)strtol(digits, NULL, 16);
        append(&out, &byte, 1);
    }
    return out;
}

struct rule
{
    char *number;
    char *program;
    char **patterns; /* each argument's, or NULL for any arguments */
    int open;        /* further arguments may follow */
    char *holds;     /* what the input must hold */
    long from, to;   /* which of the matching calls */
    char *lines[maxWords];
    int count;
};

static int matches(const struct rule *rule, int argc, char **argv)
{
    if (strcmp(rule->program, name) != 0)
        return 0;
    if (rule->patterns) {
        int i = 1;
        for (char **pattern = rule->patterns; *pattern; ++pattern, ++i) {
            if (i >= argc || fnmatch(*pattern, argv[i], 0) != 0)
                return 0;
        }
        if (i < argc && !rule->open)
            return 0;
    }
    if (rule->holds) {
        readInput();
        if (!memmem(input.data, input.size, rule->holds, strlen(rule->holds)))
            return 0;
    }
    if (rule->from == 0)
        return 1;

    char file[128];
    char number[32] = "";
    snprintf(file, sizeof file, "count.%s", rule->number);
    const int guard = lock();
    const int fd = openState(file, O_RDWR | O_CREAT);
    const ssize_t got = read(fd, number, sizeof number - 1);
    const long call = (got > 0 ? atol(number) : 0) + 1;
    const int size = snprintf(number, sizeof number, "%ld", call);
    if (pwrite(fd, number, (size_t)size, 0) != size)
        fail(file);
    close(fd);
    close(guard);
    return call >= rule->from && call <= rule->to;
}

static void passOn(char **argv)
{
    static const char *const folders[] = {"/usr/sbin", "/usr/bin"};
    static const char standard[] = ":/usr/sbin:/usr/bin:/sbin:/bin";
    char path[4096];
    /* tar looks for gzip on PATH; what runuser starts shall meet stand-ins only. */
    const char *search = getenv("PATH");
    if (search && strcmp(name, "runuser") != 0 && !strstr(search, standard)) {
        char *longer = NULL;
        if (asprintf(&longer, "%s%s", search, standard) < 0)
            fail("memory");
        setenv("PATH", longer, 1);
    }
    for (size_t i = 0; i < sizeof folders / sizeof *folders; ++i) {
        snprintf(path, sizeof path, "%s/%s", folders[i], name);
        execv(path, argv);
    }
    fail("cannot pass on");
}

/* A background process that keeps the pipes open and outlives its parent. */
static void leaveChild(const char *until, int ownSession)
{
    if (fork() != 0)
        return;
    if (ownSession)
        setsid();
    waitForFile(until);
    _exit(0);
}

static void flood(int fd, long long size)
{
    char block[65536];
    memset(block, 'x', sizeof block);
    while (size != 0) {
        const size_t part = size < 0 || size > (long long)sizeof block ? sizeof block : (size_t)size;
        if (writeAll(fd, block, part) != 0)
            _exit(1);
        if (size > 0)
            size -= (long long)part;
    }
}

/* Bytes of every value, also line feeds and what is no UTF-8; the same ones in every run. */
static void makeNoise(int fd, long long size)
{
    uint32_t state = 2463534242U;
    char block[65536];
    while (size > 0) {
        for (size_t i = 0; i < sizeof block; ++i) {
            state ^= state << 13;
            state ^= state >> 17;
            state ^= state << 5;
            block[i] = (char)state;
        }
        const size_t part = size > (long long)sizeof block ? sizeof block : (size_t)size;
        if (writeAll(fd, block, part) != 0)
            _exit(1);
        size -= (long long)part;
    }
}

/* The code of a process as a shell tells it. */
static int codeOf(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) != child)
        ;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/* Does not return, but in the child that leaves the answer to the rules after this one. */
static void answer(const struct rule *rule, char **argv)
{
    int code = 0;
    int reads = 1;
    for (int i = 0; i < rule->count; ++i) {
        char *line = strdup(rule->lines[i]);
        const char *word = strsep(&line, " ");
        if (strcmp(word, "unread") == 0) {
            reads = 0;
            close(0);
        } else if (strcmp(word, "ignoreinput") == 0) {
            reads = 0;
        } else if (strcmp(word, "real") == 0) {
            passOn(argv);
        } else if (strcmp(word, "tell") == 0) {
            kill(getppid(), atoi(line));
        } else if (strcmp(word, "noise") == 0) {
            makeNoise(1, atoll(line));
            makeNoise(2, atoll(line));
        } else if (strcmp(word, "rest") == 0) {
            const pid_t child = fork();
            if (child == 0)
                return;
            code = codeOf(child);
            reads = 0;
        } else if (strcmp(word, "remove") == 0) {
            if (unlink(unhex(line).data) != 0)
                fail("remove");
        } else if (strcmp(word, "wait") == 0) {
            if (reads)
                readInput();
            waitForFile(unhex(line).data);
        } else if (strcmp(word, "child") == 0) {
            const char *kind = strsep(&line, " ");
            leaveChild(unhex(line).data, strcmp(kind, "session") == 0);
        } else if (strcmp(word, "write") == 0) {
            const struct bytes path = unhex(strsep(&line, " "));
            const struct bytes content = unhex(line);
            const int fd = open(path.data, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            if (fd < 0 || writeAll(fd, content.data, content.size) != 0)
                fail(path.data);
            close(fd);
        } else if (strcmp(word, "flood") == 0) {
            const int fd = atoi(strsep(&line, " "));
            flood(fd, atoll(line));
        } else if (strcmp(word, "stdout") == 0 || strcmp(word, "stderr") == 0) {
            if (reads)
                readInput();
            const struct bytes content = unhex(line);
            if (writeAll(word[3] == 'o' ? 1 : 2, content.data, content.size) != 0)
                _exit(1);
        } else if (strcmp(word, "shell") == 0) {
            const char *script = unhex(line).data;
            setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
            char **words = calloc(maxWords, sizeof *words);
            words[0] = "/bin/sh";
            words[1] = "-c";
            words[2] = (char *)script;
            for (int w = 0; w < maxWords - 4 && argv[w]; ++w)
                words[3 + w] = argv[w];
            execv("/bin/sh", words);
            fail("/bin/sh");
        } else if (strcmp(word, "hang") == 0) {
            if (reads)
                readInput();
            for (;;)
                pause();
        } else if (strcmp(word, "signal") == 0) {
            if (reads)
                readInput();
            const struct rlimit none = {0, 0};
            setrlimit(RLIMIT_CORE, &none);
            signal(atoi(line), SIG_DFL);
            raise(atoi(line));
        } else if (strcmp(word, "exit") == 0) {
            code = atoi(line);
        }
    }
    if (reads)
        readInput();
    finished();
    _exit(code);
}

/* The rules file: blocks of lines "rule NUMBER NAME", conditions, actions; the first block that matches answers. */
static void answerByRules(int argc, char **argv)
{
    const int fd = openState("rules", O_RDONLY);
    const struct bytes all = readAll(fd);
    close(fd);
    char *rest = all.data;
    struct rule rule;
    int began = 0;
    for (char *line = strsep(&rest, "\n"); line; line = strsep(&rest, "\n")) {
        if (strncmp(line, "rule ", 5) == 0) {
            memset(&rule, 0, sizeof rule);
            began = 1;
            line += 5;
            rule.number = strsep(&line, " ");
            rule.program = line;
        } else if (!began) {
            continue;
        } else if (strncmp(line, "args", 4) == 0) {
            rule.patterns = calloc(maxWords, sizeof *rule.patterns);
            rule.open = line[4] == '+';
            line += 5;
            int i = 0;
            for (char *word = strsep(&line, " "); word && i < maxWords - 1; word = strsep(&line, " ")) {
                if (*word)
                    rule.patterns[i++] = unhex(word + 1).data;
            }
        } else if (strncmp(line, "holds ", 6) == 0) {
            rule.holds = unhex(line + 6).data;
        } else if (strncmp(line, "calls ", 6) == 0) {
            sscanf(line + 6, "%ld %ld", &rule.from, &rule.to);
        } else if (strcmp(line, "end") == 0) {
            began = 0;
            if (matches(&rule, argc, argv))
                answer(&rule, argv);
        } else if (rule.count < maxWords) {
            rule.lines[rule.count++] = line;
        }
    }
}

int main(int argc, char **argv)
{
    const char *path = (const char *)getauxval(AT_EXECFN);
    const char *slash = strrchr(path, '/');
    name = slash ? slash + 1 : path;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    snprintf(id, sizeof id, "%d.%lld%09ld", (int)getpid(), (long long)now.tv_sec, now.tv_nsec);

    record(argv);
    answerByRules(argc, argv);
    readInput();
    finished();
    return 0;
}
