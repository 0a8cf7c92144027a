#!/usr/bin/python3
"""The file manager's costs against the plain tools run as the same user, in a sandbox with its homes on a real disk."""

import json
import os
import shutil
import socket
import statistics
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
MEBIBYTE = 1 << 20
SIZE = 256 * MEBIBYTE
ENTRIES = 1_000_000
TRANSFER = "/var/lib/corvane/transfer"
PATH = "/usr/sbin:/usr/bin:/sbin:/bin"


# The part that runs inside of the sandbox


class Agent:
    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect("/run/corvane/agent.sock")
        self.file = self.socket.makefile("rb")

    def ask(self, **args):
        self.socket.sendall(json.dumps({"cmd": "files", "args": {"username": "alice", **args}}).encode() + b"\n")
        reply = json.loads(self.file.readline())
        assert reply["ok"], reply
        return reply


def tool(*argv, output="/dev/null"):
    """Runs a program with its output going to a file, by the cheapest means there are."""
    opened = [(os.POSIX_SPAWN_OPEN, 1, output, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)]
    pid = os.posix_spawnp(argv[0], argv, os.environ, file_actions=opened)
    _, status, usage = os.wait4(pid, 0)
    assert status == 0, argv
    return usage


def as_alice(*argv, **how):
    return tool("runuser", "-u", "alice", "--", *argv, **how)


def remove(path):
    if os.path.lexists(path):
        os.unlink(path)


def compare(ours, reference, rounds, before=lambda: None):
    """Seconds of both, medians of alternate rounds after one that does not count."""
    times = ([], [])
    for number in range(rounds + 1):
        for index, work in enumerate((ours, reference)):
            before()
            start = time.perf_counter()
            work()
            if number:
                times[index].append(time.perf_counter() - start)
    return [statistics.median(side) for side in times]


def row(what, ours, reference, limit, unit=1000, name="ms"):
    print(f"| {what} | {ours * unit:.1f} {name} | {reference * unit:.1f} {name} | {ours / reference:.2f} | {limit} |", flush=True)


def agent_status():
    """The agent's memory status: field -> MiB."""
    for entry in Path("/proc").iterdir():
        if entry.name.isdigit() and (entry / "cmdline").read_bytes().startswith(b"/usr/libexec/corvane/corv-agent"):
            lines = [line.split(":\t") for line in (entry / "status").read_text().splitlines()]
            return {line[0]: int(line[1].split()[0]) / 1024 for line in lines if line[1].endswith("kB")}
    raise AssertionError("the agent does not run")


def measure():
    agent = Agent()
    home = "/home/alice/disk"
    times = compare(lambda: agent.ask(op="read", path="disk/small"), lambda: as_alice("cat", f"{home}/small"), 200)
    row("read of a file of 1 KiB, runuser and cat", *times, "1.5")

    times = compare(lambda: agent.ask(op="list", path="disk/many"), lambda: as_alice("ls", "-la", f"{home}/many"), 5)
    row("list of 1,000,000 entries, ls -la", *times, "0.5")
    usage = as_alice("/usr/libexec/corvane/corv-agent", "--files", "list", "/home/alice", "disk/many")
    print(f"| its memory | {usage.ru_maxrss / 1024:.0f} MiB | | | 100 MiB |", flush=True)

    def clear():
        remove("/tmp/reply")
        for path in (f"{home}/target", f"{TRANSFER}/reference", *(f"{TRANSFER}/{name}" for name in os.listdir(TRANSFER))):
            if not path.endswith("uploaduploadupload"):
                remove(path)

    times = compare(
        lambda: agent.ask(op="download", path="disk/large"),
        lambda: as_alice("cat", f"{home}/large", output=f"{TRANSFER}/reference"),
        7,
        clear,
    )
    row("download of 256 MiB, cat into a file", *times, "1.3")

    upload = f"{TRANSFER}/uploaduploadupload"

    def prepare():
        clear()
        if not os.path.exists(upload):
            shutil.copyfile(f"{home}/large", upload)

    times = compare(
        lambda: agent.ask(op="upload", path="disk/target", transfer=os.path.basename(upload)),
        lambda: tool("cp", upload, f"{home}/target"),
        7,
        prepare,
    )
    row("upload of 256 MiB, cp", *times, "1.3")
    status = agent_status()
    print(f"| the agent's memory at its peak | {status['VmHWM']:.0f} MiB | | | 300 MiB |")
    print(f"| the agent's memory afterwards | {status['VmRSS']:.0f} MiB | | | |")


# The part that makes the sandbox


def make_files(folder, uid):
    many = folder / "many"
    many.mkdir()
    for number in range(ENTRIES):
        os.close(os.open(many / f"page-{number * 7919 % 1_000_003:07d}.html", os.O_CREAT | os.O_WRONLY, 0o644))
    (folder / "small").write_bytes(b"0123456789abcde\n" * 64)
    with (folder / "large").open("wb") as file:
        for _ in range(SIZE // MEBIBYTE):
            file.write(os.urandom(MEBIBYTE))
    for path in (folder, folder / "small", folder / "large"):
        os.chown(path, uid, uid)


def main():
    sys.path.insert(0, str(ROOT / "tests/protocol"))
    os.environ.setdefault("CORV_AGENT", str(ROOT / "build-bench/bin/corv-agent"))
    from ground import MS_BIND, Ground, mount
    from sandbox import Sandbox

    scratch = Path(tempfile.mkdtemp(prefix="corv-bench.", dir="/var/tmp"))
    ground = Ground()
    box = Sandbox(ground)
    try:
        uid = box.add_account("alice")
        for name, inside in (("disk", "/home/alice/disk"), ("transfer", TRANSFER)):
            (scratch / name).mkdir()
            box.mkdir(inside)
            mount(scratch / name, box.path(inside), None, MS_BIND)
        # The machine's own login set-up, so that runuser costs what it costs on a server.
        shutil.copytree("/etc/pam.d", box.path("/etc/pam.d"), dirs_exist_ok=True)
        shutil.copytree("/etc/security", box.path("/etc/security"), dirs_exist_ok=True)
        make_files(scratch / "disk", uid)
        box.start(env={"PATH": PATH})
        shutil.copy(__file__, box.path("/root/bench.py"))
        code, out, err = box.run("/usr/bin/python3", "/root/bench.py", "inside", env={"PATH": PATH})
        print(out, end="")
        if code:
            sys.exit(err)
    finally:
        box.close()
        ground.close()
        shutil.rmtree(scratch)


if __name__ == "__main__":
    measure() if sys.argv[1:2] == ["inside"] else main()
