"""An inventory of hosts that are none, what answers in their place, and what a client costs that asks them: for the drivers beside this."""

import ctypes
import os
import pathlib
import shutil
import subprocess
import tempfile
import threading
import time

TREE = pathlib.Path(__file__).resolve().parents[1]
# Of a login with a key over some ten milliseconds of network.
LOGIN_MS = 150
CLONE_NEWNS = 0x20000

# Says when it began and ended, so that how many there were at once is known afterwards. What it answers is the driver's.
SSH = r"""
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static void note(const char *what)
{
    struct timespec now;
    char line[64];
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int length = snprintf(line, sizeof line, "%lld.%09ld %s\n", (long long)now.tv_sec, now.tv_nsec, what);
    const int log = open(getenv("BENCH_LOG"), O_WRONLY | O_APPEND | O_CREAT, 0600);
    if (write(log, line, (size_t)length) != length)
        _exit(9);
    close(log);
}

static void reply(const char *text)
{
    if (write(1, text, strlen(text)) < 0)
        _exit(9);
}

"""


def make_ssh(folder, program):
    """A folder for PATH with the stand-in; program: its main function, which may use what is above."""
    tools = folder / "tools"
    tools.mkdir()
    (folder / "ssh.c").write_text(SSH + program)
    subprocess.run(["cc", "-O2", f"-DLOGIN_MS={LOGIN_MS}", "-o", tools / "ssh", folder / "ssh.c"], check=True)
    return tools


def enter_mounts(folder):
    """From here on /etc is this process's own, so that it can have a hosts file of its own."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWNS) != 0:
        raise OSError(ctypes.get_errno(), "unshare")
    subprocess.run(["mount", "--make-rprivate", "/"], check=True)
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", folder], check=True)
    for name in ("upper", "work"):
        (folder / name).mkdir()
    options = f"lowerdir=/etc,upperdir={folder}/upper,workdir={folder}/work"
    subprocess.run(["mount", "-t", "overlay", "overlay", "-o", options, "/etc"], check=True)
    pathlib.Path("/etc/corvane").mkdir(exist_ok=True)


def write_hosts(count):
    """An inventory of so many hosts, in groups of twenty."""
    lines = []
    for number in range(count):
        if number % 20 == 0:
            lines.append(f"[rack{number // 20}]")
        lines.append(f"root@web{number}.example")
    pathlib.Path("/etc/corvane/hosts").write_text("\n".join(lines) + "\n")


def most_at_once(log):
    """How many were open at the same time, of the lines with their beginnings and ends."""
    events = sorted((float(line.split()[0]), 1 if line.endswith("+") else -1) for line in log.read_text().splitlines())
    now = most = 0
    for _, change in events:
        now += change
        most = max(most, now)
    return most


def memory_of(process, proc="/proc"):
    """The memory of a process and all below it that is not another one's too, in MiB; what has ended has none."""
    total = 0
    waiting = [process]
    while waiting:
        one = waiting.pop()
        try:
            lines = pathlib.Path(f"{proc}/{one}/smaps_rollup").read_text().splitlines()
            waiting += map(int, pathlib.Path(f"{proc}/{one}/task/{one}/children").read_text().split())
        except OSError:
            continue
        total += sum(int(line.split()[1]) for line in lines if line.startswith("Pss:"))
    return total / 1024


def measured(argv, env, every=0.1):
    """Runs it: (seconds, seconds of processor time, MiB at most, standard output). Its memory is looked at once in so many seconds."""
    peak = 0.0
    before = os.times()
    began = time.monotonic()
    with tempfile.TemporaryFile("w+") as out, subprocess.Popen(argv, env=env, stdout=out, stderr=subprocess.DEVNULL,
                                                              stdin=subprocess.DEVNULL) as process:
        ended = threading.Event()

        def look():
            nonlocal peak
            while not ended.wait(every):
                peak = max(peak, memory_of(process.pid))

        looking = threading.Thread(target=look)
        looking.start()
        code = process.wait()
        seconds = time.monotonic() - began
        ended.set()
        looking.join()
        after = os.times()
        out.seek(0)
        text = out.read()
    if code != 0:
        raise SystemExit(f"{argv} ended with {code}")
    used = after.children_user - before.children_user + after.children_system - before.children_system
    return seconds, used, peak, text


def make_collection(folder):
    """Where Ansible looks for collections: the one of this tree, under its name."""
    place = folder / "collections/ansible_collections/corvane/server"
    place.parent.mkdir(parents=True)
    shutil.copytree(TREE / "ansible", place)
    return folder / "collections"
