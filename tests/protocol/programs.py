"""What runs in a sandbox, seen from the test: processes, connections to the agent, recorded calls of stand-ins."""

import fcntl
import json
import os
import signal
import socket
import struct
import subprocess
import termios
import time
from pathlib import Path

from ground import unmount

# How long a test waits for what must happen before it fails; generous, since nothing may depend on speed.
PATIENCE = float(os.environ.get("CORV_TEST_PATIENCE", "60"))


def wait_until(condition, what, patience=None):
    """Waits for condition() to return something true, and returns that; fails the test when it does not happen."""
    end = time.monotonic() + (PATIENCE if patience is None else patience)
    pause = 0.001
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"waited in vain for {what}")
        time.sleep(pause)
        pause = min(pause * 1.5, 0.02)


class Call:
    """One recorded call of a stand-in: what it was given and found."""

    def __init__(self, entry, state):
        text = lambda value: value.encode("latin-1").decode("utf-8", "surrogateescape")
        self.id = entry["id"]
        self.name = entry["name"]
        self.args = [text(arg) for arg in entry["argv"][1:]]
        self.argv = [self.name, *self.args]
        self.env = dict(text(pair).split("=", 1) for pair in entry["env"] if "=" in pair)
        self.cwd = text(entry["cwd"])
        self.fds = {int(number): text(target) for number, target in entry["fds"].items()}
        self.blocked = int(entry["SigBlk"], 16)
        self.ignored = int(entry["SigIgn"], 16)
        for key in ("uid", "gid", "pid", "ppid", "pgid", "sid", "umask"):
            setattr(self, key, entry[key])
        self._state = state

    @property
    def stdin(self):
        """The bytes on its standard input; None when it did not read any (also while it still reads)."""
        path = self._state / f"input.{self.id}"
        return path.read_bytes() if path.exists() else None

    @property
    def done(self):
        """True once it came to its own end (it was not killed, does not hang, was not passed on to the real tool)."""
        return (self._state / f"done.{self.id}").exists()

    def __repr__(self):
        return f"<{' '.join(self.argv)}>"


class Client:
    """One connection to the agent."""

    def __init__(self, path, uid=0, gid=0, exchange=None):
        self.exchange = exchange
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(PATIENCE)
        self.buffer = b""
        folder = os.open(os.path.dirname(path), os.O_PATH)
        groups = os.getgroups()
        try:
            if uid != 0:
                os.setgroups([])
                os.setresgid(-1, gid, -1)
                os.setresuid(-1, uid, -1)
            # An address holds 107 bytes at most; the sandbox's own path must not use them up.
            self.socket.connect(f"/proc/self/fd/{folder}/{os.path.basename(path)}")
        finally:
            if uid != 0:
                os.setresuid(-1, 0, -1)
                os.setresgid(-1, 0, -1)
                os.setgroups(groups)
            os.close(folder)

    def send(self, data):
        """Sends bytes as they are."""
        if self.exchange:
            self.exchange.sent(data)
        self.socket.sendall(data)

    def end_sending(self):
        """Shuts down the sending side, as `echo ... | socat - UNIX-CONNECT:...` does."""
        self.socket.shutdown(socket.SHUT_WR)

    def line(self):
        """The next reply line with its line feed; what is left, possibly nothing, when the agent closed before one."""
        while b"\n" not in self.buffer:
            try:
                data = self.socket.recv(1 << 20)
            except ConnectionResetError:
                data = b""
            if not data:
                rest, self.buffer = self.buffer, b""
                return rest
            self.buffer += data
        line, _, self.buffer = self.buffer.partition(b"\n")
        return self._noted(line + b"\n")

    def _noted(self, data):
        """The data, which the test is about to get; its complete lines are replies."""
        if self.exchange:
            self.exchange.received(data)
        return data

    def reply(self):
        """The next reply as an object; its line must be one JSON object."""
        line = self.line()
        assert line.endswith(b"\n"), f"the agent closed the connection after {line!r}"
        return json.loads(line)

    def rest(self):
        """Everything until the agent closes the connection."""
        data, self.buffer = self.buffer, b""
        while True:
            try:
                more = self.socket.recv(1 << 20)
            except ConnectionResetError:
                return self._noted(data)
            if not more:
                return self._noted(data)
            data += more

    def unread(self):
        """How many of the bytes sent the agent has not taken yet."""
        return struct.unpack("i", fcntl.ioctl(self.socket, termios.TIOCOUTQ, b"\0" * 4))[0]

    def silent(self):
        """True when nothing has arrived and the connection is open."""
        if self.buffer:
            return False
        self.socket.setblocking(False)
        try:
            self.buffer = self.socket.recv(1 << 20)
            return False
        except BlockingIOError:
            return True
        finally:
            self.socket.settimeout(PATIENCE)

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def _dead(pid):
    try:
        with open(f"/proc/{pid}/stat") as file:
            return file.read().rpartition(")")[2].split()[0] in "ZX"
    except (FileNotFoundError, ProcessLookupError):
        return True


class Process:
    """A program in the sandbox's root with name spaces of its own; they end with close()."""

    def __init__(self, sandbox, argv, env, stdout, stderr, uid=0, gid=0, blocked=0, hostname="sandbox"):
        reading, writing = os.pipe()
        control, self._control = os.pipe()
        self.launcher = subprocess.Popen(
            [sandbox.ground.launcher, sandbox.root, hostname, str(writing), str(uid), str(gid), str(int(blocked)), *argv],
            env=env,
            stdin=control,
            stdout=stdout,
            stderr=stderr,
            pass_fds=[writing],
        )
        os.close(writing)
        os.close(control)
        self._status = os.fdopen(reading)
        self._proc = sandbox.root / "proc"
        self.ended = None
        kind, *number = self._status.readline().split() or ["nothing"]
        if kind != "pid":
            self.close()
            raise AssertionError("the sandbox's program could not be started")
        self.pid = int(number[0])

    def wait(self, patience=None):
        """Waits for the program's end: its exit code, or minus the signal that ended it."""
        if self.ended is None:
            wait_until(lambda: _dead(self.pid), f"the end of process {self.pid}", patience)
            kind, number = self._status.readline().split()
            self.ended = int(number) if kind == "exit" else -int(number)
        return self.ended

    def running(self):
        return self.ended is None and not _dead(self.pid)

    def signal(self, number):
        os.kill(self.pid, number)

    def children(self):
        """Process ids (from outside) of its children, ended ones that nobody has waited for among them."""
        found = []
        for task in Path(f"/proc/{self.pid}/task").iterdir():
            found += [int(pid) for pid in (task / "children").read_text().split()]
        return found

    def others(self):
        """Command lines of everything else that runs in its name space."""
        names = []
        for entry in self._proc.iterdir():
            if entry.name.isdigit() and int(entry.name) > 2:
                try:
                    names.append((entry / "cmdline").read_bytes().split(b"\0")[0].decode())
                except (FileNotFoundError, ProcessLookupError):
                    pass
        return sorted(name for name in names if name)

    def fds(self):
        """Its open descriptors and what they refer to."""
        found = {}
        for entry in Path(f"/proc/{self.pid}/fd").iterdir():
            try:
                found[int(entry.name)] = os.readlink(entry)
            except FileNotFoundError:
                pass
        return found

    def state(self):
        """The kernel's letter for what it does: R runs or wants to, S sleeps, Z has ended."""
        with open(f"/proc/{self.pid}/stat") as file:
            return file.read().rpartition(")")[2].split()[0]

    def cpu_seconds(self):
        """The processor time that it has used itself."""
        with open(f"/proc/{self.pid}/stat") as file:
            fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def memory(self, field="VmRSS"):
        """A field of its memory status, in bytes."""
        for line in Path(f"/proc/{self.pid}/status").read_text().splitlines():
            if line.startswith(field + ":"):
                return int(line.split()[1]) * 1024
        raise AssertionError(f"no {field}")

    def close(self):
        """Ends it and everything in its name spaces, and waits for that."""
        if self._control is None:
            return
        if self.ended is None and hasattr(self, "pid"):
            try:
                os.kill(self.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        os.close(self._control)
        self._control = None
        self.launcher.wait()
        self._status.close()
        if (self._proc / "self").is_symlink():
            unmount(self._proc)
