/*
 * Runs one program in a sandbox's root: launch ROOT HOSTNAME STATUSFD UID GID BLOCKED PROGRAM ARGUMENT...
 *
 * The program gets process, host name and IPC name spaces of its own, so that whatever it leaves behind ends with this
 * process, and so that a pkill inside reaches nothing outside. STATUSFD receives "pid N" (as seen from outside) and
 * later "exit N" or "signal N". The name spaces stay until standard input ends, for a look at what the program left.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static void die(const char *what)
{
    dprintf(2, "launch: %s: %s\n", what, strerror(errno));
    _exit(125);
}

/* The name space's first process: adopts and reaps what loses its parent, until it is killed. */
static void reap(const char *root, int ready)
{
    char proc[4096];
    snprintf(proc, sizeof proc, "%s/proc", root);
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
        die("prctl");
    if (mount("proc", proc, "proc", MS_NOSUID | MS_NOEXEC | MS_NODEV, NULL) != 0)
        die("mount proc");
    if (write(ready, "r", 1) != 1)
        die("pipe");
    close_range(0, ~0U, 0);

    sigset_t children;
    sigemptyset(&children);
    sigaddset(&children, SIGCHLD);
    sigprocmask(SIG_BLOCK, &children, NULL);
    for (;;) {
        while (waitpid(-1, NULL, WNOHANG) > 0)
            ;
        int number = 0;
        sigwait(&children, &number);
    }
}

static void become(const char *root, uid_t uid, gid_t gid, int blocked, char **program)
{
    if (chroot(root) != 0 || chdir("/") != 0)
        die("chroot");
    setsid();
    const int null = open("/dev/null", O_RDONLY);
    if (null < 0 || dup2(null, 0) != 0)
        die("/dev/null");
    close_range(3, ~0U, 0);
    for (int number = 1; number < 32; ++number)
        signal(number, SIG_DFL);
    sigset_t mask;
    sigemptyset(&mask);
    if (blocked > 0)
        sigaddset(&mask, blocked);
    sigprocmask(SIG_SETMASK, &mask, NULL);
    umask(022);
    if ((gid != 0 || uid != 0) && (setgroups(0, NULL) != 0 || setgid(gid) != 0 || setuid(uid) != 0))
        die("setuid");
    execv(program[0], program);
    die(program[0]);
}

int main(int argc, char **argv)
{
    if (argc < 8) {
        fputs("usage: launch ROOT HOSTNAME STATUSFD UID GID BLOCKED PROGRAM ARGUMENT...\n", stderr);
        return 125;
    }
    const char *root = argv[1];
    const int status = atoi(argv[3]);
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
        die("prctl");
    if (unshare(CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWIPC) != 0)
        die("unshare");
    if (sethostname(argv[2], strlen(argv[2])) != 0)
        die("sethostname");

    int ready[2];
    char byte = 0;
    if (pipe2(ready, O_CLOEXEC) != 0)
        die("pipe");
    const pid_t first = fork();
    if (first == 0)
        reap(root, ready[1]);
    close(ready[1]);
    if (first < 0 || read(ready[0], &byte, 1) != 1)
        die("first process");
    close(ready[0]);

    const pid_t child = fork();
    if (child == 0)
        become(root, (uid_t)atoi(argv[4]), (gid_t)atoi(argv[5]), atoi(argv[6]), argv + 7);
    if (child < 0)
        die("fork");
    dprintf(status, "pid %d\n", (int)child);

    int code = 0;
    while (waitpid(child, &code, 0) != child)
        ;
    if (WIFEXITED(code))
        dprintf(status, "exit %d\n", WEXITSTATUS(code));
    else
        dprintf(status, "signal %d\n", WTERMSIG(code));
    close(status);

    while (read(0, &byte, 1) > 0)
        ;
    kill(first, SIGKILL);
    waitpid(first, NULL, 0);
    return 0;
}
