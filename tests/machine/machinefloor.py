"""A virtual machine with Debian's own kernel for tests: what tests/host knows of a booted host, and restarts."""

import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile
import time
from contextlib import contextmanager

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "host"))

from hostfloor import CACHE, PATH, SOCKET, Host, HostError, _die_with_parent, packages_of  # noqa: E402

SCRIPT = ROOT / "scripts" / "machine"

# Seconds that anything may take: emulated, on a busy machine, all of it can be slow.
PATIENCE = 900


class Machine(Host):
    """One booted machine. Its commands run over one SSH connection; nothing visits it from outside."""

    def __init__(self, name, package):
        """Boots it with the agent's package and what is installed with it."""
        self.name = name
        self.boot_seconds = 0.0
        self.install_seconds = 0.0
        self._accounts = []
        self._count = 0
        self._folder = tempfile.TemporaryDirectory(prefix="corv-machine-")
        self._process = None
        self._state = CACHE / "machines" / name
        began = time.monotonic()
        if subprocess.run([SCRIPT, "prepare", name, *packages_of(package)], check=False).returncode != 0:
            raise HostError("the disk could not be built; what scripts/machine wrote says why")
        self.install_seconds = time.monotonic() - began

        began = time.monotonic()
        self._process = subprocess.Popen([SCRIPT, "run", name], stdin=subprocess.DEVNULL, start_new_session=True,
                                         preexec_fn=_die_with_parent)
        self._wait()
        self.boot_seconds = time.monotonic() - began
        self.key = self.make_key("key")

    def stop(self):
        """Ends the machine; its disk is as it was before."""
        if self._process:
            self._process.kill()
            self._process.wait()
            self._process = None
        shutil.rmtree(self._state, ignore_errors=True)
        self._folder.cleanup()

    def run(self, argv, *, timeout=0, **kwargs):
        return super().run(argv, timeout=max(timeout, PATIENCE), **kwargs)

    def wait_for(self, condition, what, timeout=0):
        return super().wait_for(condition, what, max(timeout, PATIENCE))

    def wait_until_served(self, name, domain, *, php=True):
        """Sites are not waited for: no visitor reaches them."""

    def boot_id(self):
        """Another one after each start of the machine."""
        return self.get("/proc/sys/kernel/random/boot_id").strip()

    @contextmanager
    def restarting(self):
        """What runs within is expected to restart the machine; waits until it is up again, and fails when it is not the
        same machine started anew."""
        before = self.boot_id()
        yield
        self._wait_for_end_of_connection()
        self._wait()
        after = self.boot_id()
        if after == before:
            raise HostError("the machine lost its connection but has not been restarted")
        self.wait_for_unit("corv-agent")

    @contextmanager
    def connection(self, timeout=PATIENCE):
        """A connection to the agent's socket as root."""
        path = self._state / "agent"
        self._ssh("-O", "forward", "-L", f"{path}:{SOCKET}")
        try:
            with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
                client.settimeout(timeout)
                client.connect(str(path))
                yield client
        finally:
            self._ssh("-O", "cancel", "-L", f"{path}:{SOCKET}", check=False)
            path.unlink(missing_ok=True)

    def request(self, cmd, timeout=PATIENCE, **args):
        """Sends one request as root and returns the whole reply."""
        return super().request(cmd, timeout, **args)

    def _ssh(self, *args, check=True):
        done = subprocess.run(["ssh", "-F", self._state / "ssh_config", *args, "machine"], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, check=False)
        if check and done.returncode != 0:
            raise HostError(f"ssh {' '.join(args)}: {done.stderr}")

    def _wait(self):
        ready = subprocess.run([SCRIPT, "wait", self.name], capture_output=True, text=True, check=False)
        if ready.returncode != 0:
            self.stop()
            raise HostError(ready.stderr)
        # Stand-ins lie there, and nothing can be run from it on a server that was started by its own kernel.
        self.ok(["mount", "-o", "remount,exec", "/run"])

    def _wait_for_end_of_connection(self):
        self.wait_for(lambda: not (self._state / "ssh").exists(), "the end of the machine's connections")

    def _inside(self, env=None):
        variables = {"PATH": PATH, "HOME": "/root", "LC_ALL": "C.UTF-8", **(env or {})}
        return [SCRIPT, "exec", self.name, "env", "-i", *(f"{name}={value}" for name, value in variables.items())]


def fill(machine, account, mebibytes):
    """Writes a file of that size, as the account, in its home; returns how that ended."""
    return machine.run(["dd", "if=/dev/zero", f"of={account.home}/big", "bs=64K", f"count={mebibytes * 16}"],
                       user=account.name)


def uid(machine, account):
    """The number of an account's user, as text."""
    return machine.ok(["id", "-u", account.name]).strip()


def limits(machine, number):
    """The soft and the hard limit, in KiB, of the user with that number; 0 is none."""
    for line in machine.ok(["repquota", "-u", "-n", "/"]).splitlines():
        fields = line.split()
        if fields and fields[0] == f"#{number}":
            return int(fields[3]), int(fields[4])
    return 0, 0
