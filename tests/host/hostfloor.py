"""A booted Debian host for tests: the packaged agent on it, visitors from outside, accounts that go away by themselves."""

import ctypes
import json
import os
import pathlib
import shlex
import signal
import socket
import subprocess
import sys
import time
from contextlib import contextmanager
from dataclasses import dataclass

ROOT = pathlib.Path(__file__).resolve().parents[2]
CACHE = pathlib.Path(os.environ.get("CORV_CACHE", "/var/cache/corv-agent-dev"))
ADDRESS = "10.213.0.2"
OUTSIDE = "10.213.0.1"
SOCKET = "/run/corvane/agent.sock"
PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

# Takes away all that creation makes, whether it is whole or not and without the agent's help, so that a test of deletion
# cannot hide what it forgot from the tests after it. The pool goes first: PHP-FPM refuses to reload one whose user is gone.
REMOVE_ACCOUNT = r"""
user=$1 domain=$2
rm -f /etc/php/*/fpm/pool.d/corv-"$user".conf /etc/php/*/fpm/pool.d/corv-"$user".conf.suspended
rm -f /etc/apache2/sites-enabled/corv-"$user".conf /etc/apache2/sites-available/corv-"$user".conf
systemctl reload apache2
for pools in /etc/php/*/fpm/pool.d; do
    version=${pools#/etc/php/}
    systemctl reload "php${version%%/*}-fpm"
done
if id "$user" >/dev/null 2>&1; then
    pkill -KILL -u "$user"
    userdel --remove --force "$user" 2>/dev/null
fi
groupdel "$user" 2>/dev/null
rm -rf "/home/$user" "/var/log/apache2/$domain-access.log" "/var/log/apache2/$domain-error.log"
runuser -u postgres -- psql -qtAX -c "DROP DATABASE IF EXISTS \"$user\" WITH (FORCE)" -c "DROP ROLE IF EXISTS \"$user\"" 2>/dev/null
true
"""


# What stand-ins may use: it says that it has been reached, and waits until it is told to go on.
HOLD = """
hold() {
    : >/run/stand-ins/holding
    until [ -e /run/stand-ins/go ]; do sleep 0.05; done
}
"""


def packages_of(package, *, https=False):
    """The agent's package file with those that are installed with it: Apache's module where that was built beside it and, if asked for,
    the package for HTTPS."""
    package = pathlib.Path(package)
    beside = ["libapache2-mod-corvane", *(["corv-https"] if https else [])]
    return [package, *(file for name in beside for file in sorted(package.parent.glob(f"{name}_*.deb")))]


class HostError(AssertionError):
    """The host is not as a test needs it; the text says what was seen, journal included."""


@dataclass
class Result:
    """How a command ended: its exit code and what it wrote."""

    code: int
    out: str
    err: str


@dataclass
class Response:
    """An answer of the web server: status, headers by lower-case name, body."""

    status: int
    headers: dict
    body: str


@dataclass
class Account:
    """An account made by `Host.account`: the reply's fields, and the key file that logs in to it."""

    name: str
    domain: str
    password: str
    php: str
    access_log: str
    key: pathlib.Path

    @property
    def home(self):
        return f"/home/{self.name}"


@dataclass
class Key:
    """An SSH key pair: the file that the client is given, and the line that the server is given."""

    private: pathlib.Path
    public: str


class _Background(subprocess.Popen):
    """What fails while a command runs, the time limit of a test for one, must not wait for that command."""

    def __exit__(self, kind, error, trace):
        if kind:
            self.kill()
        super().__exit__(kind, error, trace)


class Host:
    """One booted host. Commands run as root unless a user is named; times are seconds. With `packages` it boots as one that has them
    installed already."""

    def __init__(self, name, suite="bookworm", packages=()):
        self.name = name
        self.boot_seconds = 0.0
        self.install_seconds = 0.0
        self._accounts = []
        self._count = 0
        self._process = None
        script = ROOT / "scripts" / "host"
        maker = "installed" if packages else "image"
        image = subprocess.run([ROOT / "scripts" / maker, suite, *packages], stdout=subprocess.PIPE, text=True, check=False)
        if image.returncode != 0:
            raise HostError(f"the image could not be built; what scripts/{maker} wrote says why")
        boots = [suite, *(image.stdout.splitlines()[-1:] if packages else [])]

        # Nothing of ours is on it yet: where a unit of Debian's own fails, once in some hundred boots of a busy machine, it is
        # booted a second time, and no more often.
        if said := self._boot(script, boots):
            print(f"{name} is booted again:\n{said}", file=sys.stderr)
            if said := self._boot(script, boots):
                raise HostError(said)
        # Goes away with the host, also with one whose test run was killed.
        self._state = CACHE / "hosts" / name
        self._first = (self._state / "first").read_text().strip()
        self.key = self.make_key("key")
        if packages:
            self.wait_for_unit("corv-agent")

    def _boot(self, script, boots):
        """What is wrong with the host that was booted, nothing when it is ready."""
        began = time.monotonic()
        self._process = subprocess.Popen([script, "run", self.name, *boots], stdin=subprocess.DEVNULL, start_new_session=True,
                                         preexec_fn=_die_with_parent)
        ready = subprocess.run([script, "wait", self.name], capture_output=True, text=True, check=False)
        if ready.returncode != 0:
            self.stop()
            return ready.stderr
        self.boot_seconds = time.monotonic() - began
        return None

    def stop(self):
        """Ends the host with all that runs on it."""
        subprocess.run([ROOT / "scripts" / "host", "stop", self.name], capture_output=True, check=False)
        if self._process:
            self._process.kill()
            self._process.wait()
            self._process = None

    # Commands and files

    def run(self, argv, *, input=None, user=None, env=None, timeout=120):
        """Runs a command on the host, as root or, through runuser, as `user`; the environment is root's own plus `env`."""
        if user:
            argv = ["runuser", "-u", user, "--", *argv]
        argv = [*self._inside(env), *argv]
        return _run(argv, input, timeout)

    def ok(self, argv, **kwargs):
        """Runs a command that has to succeed, and returns its standard output."""
        done = self.run(argv, **kwargs)
        if done.code != 0:
            raise HostError(f"{shlex.join(argv)} ended with {done.code}: {done.err or done.out}")
        return done.out

    def background(self, argv, **kwargs):
        """Starts a command on the host and returns its process; `kwargs` are Popen's. A block of it that fails ends the command."""
        return _Background([*self._inside(), *argv], **kwargs)

    def put(self, path, data, *, mode="0644", owner=None):
        """Writes a file on the host, its folders with it, following links as the host does."""
        self.ok(["sh", "-c", 'mkdir -p "$(dirname "$1")" && cat >"$1" && chmod "$2" "$1"', "sh", path, mode],
                input=data if isinstance(data, str) else data.decode())
        if owner:
            self.ok(["chown", owner, path])

    def get(self, path):
        """The text of a file on the host."""
        return self.ok(["cat", "--", path])

    def exists(self, path):
        """Whether the path names anything, a dangling link included."""
        return self.run(["sh", "-c", '[ -e "$1" ] || [ -L "$1" ]', "sh", path]).code == 0

    def mode(self, path):
        """Permissions, owner and group of a path, such as "710 site1 www-data"."""
        return self.ok(["stat", "-c", "%a %U %G", "--", path]).strip()

    def wait_for(self, condition, what, timeout=120):
        """Waits until the condition holds and returns what it gave; fails with `what` when it does not. What does come about in a
        second takes its time where six hosts share two processors."""
        end = time.monotonic() + timeout
        pause = 0.05
        while True:
            value = condition()
            if value:
                return value
            if time.monotonic() > end:
                raise HostError(f"{what} did not happen within {timeout} s")
            time.sleep(pause)
            # Whatever takes longer is asked for less often: to ask takes processor time from what is waited for.
            pause = min(pause * 1.2, 0.3)

    def journal(self, unit=None, since=None):
        """The journal's messages: of one unit's processes if named, since a mark made by `mark` if given."""
        self.run(["journalctl", "--sync"])
        if since is None:
            return self.run(["journalctl", "--no-pager", "-o", "cat", *(["-u", unit] if unit else [])]).out
        # journalctl itself passes over an entry too many when it is given a cursor and a unit that did not log it.
        return "".join(f"{self._message(entry)}\n" for entry in self._entries(since)
                       if unit is None or entry.get("_SYSTEMD_UNIT") == f"{unit}.service")

    def agent_log(self, since):
        """The agent's own lines since a mark, without those of the tools that it ran."""
        return "".join(f"{self._message(entry)}\n" for entry in self._entries(since)
                       if entry.get("SYSLOG_IDENTIFIER") == "corv-agent")

    def _entries(self, since):
        self.run(["journalctl", "--sync"])
        lines = self.ok(["journalctl", "--no-pager", "-o", "json", "--all", f"--after-cursor={since}"])
        return [json.loads(line) for line in lines.splitlines()]

    @staticmethod
    def _message(entry):
        message = entry.get("MESSAGE", "")
        return bytes(message).decode(errors="replace") if isinstance(message, list) else message

    def mark(self):
        """A place in the journal, for `journal`."""
        self.run(["journalctl", "--sync"])
        for line in self.ok(["journalctl", "-n", "1", "--show-cursor", "-o", "cat"]).splitlines():
            if line.startswith("-- cursor: "):
                return line[len("-- cursor: "):]
        raise HostError("the journal gives no cursor")

    def active(self, unit):
        """Whether systemd calls the unit active."""
        return self.run(["systemctl", "is-active", "--quiet", unit]).code == 0

    def main_process(self, unit):
        """The id of the unit's main process, "0" when it has none."""
        return self.ok(["systemctl", "show", "-pMainPID", "--value", unit]).strip()

    def wait_for_unit(self, unit, timeout=30):
        """Waits until the unit is active, and fails with its journal when it is not."""
        try:
            self.wait_for(lambda: self.active(unit), f"{unit} becoming active", timeout)
        except HostError as error:
            status = self.run(["systemctl", "status", "--no-pager", "-n", "0", unit]).out
            raise HostError(f"{error}\n{status}\n{self.journal(unit)}") from None

    # Packages

    def install(self, package, *, https=False):
        """Installs the agent's package file as an operator does, with Apache's module where that was built beside it and, if asked
        to, the package for HTTPS, and waits for the agent."""
        began = time.monotonic()
        paths = [self._copy(file) for file in packages_of(package, https=https)]
        before = self.main_process("corv-agent")
        self.ok(["apt-get", "-q", "install", "--yes", "--reinstall", "--allow-downgrades", *paths],
                env={"DEBIAN_FRONTEND": "noninteractive"}, timeout=300)
        # An upgrade leaves the restart of a running agent behind.
        self.wait_for(lambda: self.main_process("corv-agent") not in ("0", before), "the start of the installed agent")
        self.wait_for_unit("corv-agent")
        self.install_seconds = time.monotonic() - began

    def _copy(self, file):
        path = f"/root/{file.name}"
        with open(file, "rb") as data:
            copied = subprocess.run([*self._inside(), "sh", "-c", 'cat >"$1"', "sh", path], stdin=data, check=False)
        if copied.returncode != 0:
            raise HostError(f"{file} could not be copied to the host")
        return path

    def publish(self, name, version, *, security=False, depends="", files=None, install=False):
        """Makes a package with the given files (path to text) and puts it into the host's own repository, among its security
        updates if asked to. With `install` that version is installed as well, so that a later version is an update to it."""
        folder = f"/tmp/publish/{name}_{version}_all"
        control = f"Package: {name}\nVersion: {version}\nArchitecture: all\nMaintainer: Test <test@web1.test>\n"
        control += f"Depends: {depends}\n" if depends else ""
        control += f"Description: {name} for a test\n"
        self.put(f"{folder}/DEBIAN/control", control)
        for path, text in (files or {}).items():
            self.put(f"{folder}{path}", text)
        suite = self.ok(["sh", "-c", '. /etc/os-release && echo "$VERSION_CODENAME"']).strip()
        pool = f"/srv/repository/pool/{suite}{'-security' if security else ''}"
        self.ok(["dpkg-deb", "--root-owner-group", "--build", folder, pool])
        self.ok(["host-repository"])
        if install:
            self.ok(["apt-get", "-q", "install", "--yes", f"{name}={version}"], env={"DEBIAN_FRONTEND": "noninteractive"})

    # The agent

    @contextmanager
    def connection(self, timeout=120):
        """A connection to the agent's socket as root, for tests that look at the bytes."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
            client.settimeout(timeout)
            try:
                client.connect(f"/proc/{self._first}/root{SOCKET}")
            except OSError as error:
                raise HostError(f"the agent's socket: {error}\n{self.journal('corv-agent')}") from None
            yield client

    def request(self, cmd, timeout=120, **args):
        """Sends one request as root and returns the whole reply."""
        with self.connection(timeout) as client:
            self.send(client, cmd, **args)
            return self.receive(client)

    @staticmethod
    def send(client, cmd, **args):
        """Sends a request over a connection and leaves its reply to `receive`."""
        client.sendall(json.dumps({"cmd": cmd, "args": args}).encode() + b"\n")

    def receive(self, client):
        """The reply to the one request that was sent over a connection."""
        reply = b""
        while not reply.endswith(b"\n"):
            data = client.recv(65536)
            if not data:
                raise HostError(f"the connection ended after {reply!r}\n{self.journal('corv-agent')}")
            reply += data
        return json.loads(reply)

    @contextmanager
    def stand_in(self, tool, script):
        """Puts a shell script in a system tool's place for the agent alone, which is restarted for it at both ends. The real
        tool stays reachable by its path, and the function `hold` waits in the script for `release`."""
        self.put(f"/run/stand-ins/{tool}", f"#!/bin/sh\n{HOLD}{script}\n", mode="0755")
        self.put("/run/systemd/system/corv-agent.service.d/stand-ins.conf",
                 "[Service]\nEnvironment=PATH=/run/stand-ins:/usr/libexec/corvane/tools:/usr/sbin:/usr/bin:/sbin:/bin\n")
        try:
            self._restart_agent()
            yield
        finally:
            self.ok(["rm", "-rf", "/run/stand-ins", "/run/systemd/system/corv-agent.service.d"])
            self._restart_agent()

    def wait_for_hold(self):
        """Waits until a stand-in has come to its `hold`."""
        self.wait_for(lambda: self.exists("/run/stand-ins/holding"), "the stand-in being called")

    def release(self):
        """Lets the stand-in that holds go on."""
        self.put("/run/stand-ins/go", "")

    def _restart_agent(self):
        # One that hangs in a test that failed must not take the tests after it with it.
        self.ok(["sh", "-c", "systemctl daemon-reload; systemctl reset-failed corv-agent; "
                 "timeout 20 systemctl restart corv-agent || systemctl kill --signal=SIGKILL corv-agent"])
        self.wait_for_unit("corv-agent")

    # Accounts

    def free_name(self):
        """An account name that nobody has used in this run. It and its domain are removed after the test, made or not."""
        self._count += 1
        name = f"site{self._count}"
        self._accounts.append((name, f"{name}.example"))
        return name

    def account(self, *, name=None, domain=None, ssh_key=None):
        """Makes an account, without `name` with one of its own, which goes away at the test's end. Without `ssh_key` (a `Key`)
        the host's own key logs in to it."""
        if name:
            self._accounts.append((name, domain or f"{name}.example"))
        else:
            name = self.free_name()
        if domain:
            self._accounts[-1] = (name, domain)
        key = ssh_key or self.key
        reply = self.request("hosting.create", username=name, domain=domain or f"{name}.example", sshKey=key.public)
        if reply.get("ok") is not True:
            raise HostError(f"hosting.create: {reply}\n{self.journal('corv-agent')}")
        self.wait_until_served(name, reply["domain"], php=bool(reply["phpVersion"]))
        return Account(name, reply["domain"], reply["dbPassword"], reply["phpVersion"], reply["accessLog"], key.private)

    def wait_until_served(self, name, domain, *, php=True):
        """Waits until Apache and, with `php`, PHP-FPM serve a new account: asked to reload, they say yes before they have."""
        if php:
            self.wait_for(lambda: self.exists(f"/run/php/corv-{name}.sock"), f"PHP-FPM opening the socket of {name}")
        log = f"/var/log/apache2/{domain}-access.log"
        self.wait_for(lambda: self.fetch(domain, "/until-served") and "/until-served" in self.run(["cat", log]).out,
                      f"Apache serving {domain}")

    def remove_accounts(self):
        """Takes away every account made since the last call."""
        accounts, self._accounts = self._accounts, []
        for name, domain in accounts:
            self.ok(["sh", "-c", REMOVE_ACCOUNT, "sh", name, domain])

    def make_key(self, name, kind="ed25519"):
        """Makes an SSH key pair of the given kind."""
        path = self._state / name
        subprocess.run(["ssh-keygen", "-q", "-t", kind, "-N", "", "-C", f"{name}@test", "-f", path], check=True)
        return Key(path, path.with_suffix(".pub").read_text().strip())

    # From outside

    def outside(self, argv, *, input=None, timeout=60):
        """Runs a program of this machine in the network that visits the host."""
        return _run([*self._visiting(), *argv], input, timeout)

    @contextmanager
    def serving(self, folder):
        """A block in which the folder is served over HTTP at the address that it gives, outside the host."""
        server = subprocess.Popen([*self._visiting(), "/usr/bin/python3", "-m", "http.server", "--bind", OUTSIDE, "-d", str(folder),
                                   "80"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, preexec_fn=_die_with_parent)
        try:
            self.wait_for(lambda: self.run(["curl", "-fso", "/dev/null", f"http://{OUTSIDE}/"]).code == 0, "the server's start")
            yield f"http://{OUTSIDE}"
        finally:
            server.kill()
            server.wait()

    @contextmanager
    def reaching(self, other, port):
        """A block in which this host reaches the other host's port at the address OUTSIDE."""
        way = subprocess.Popen([*self._visiting(), "/usr/bin/python3", ROOT / "tests/host/forward.py", OUTSIDE, str(port),
                                str(other._process.pid), ADDRESS], stdout=subprocess.PIPE, preexec_fn=_die_with_parent)
        try:
            if way.stdout.read(1) != b".":
                raise HostError(f"no way from {self.name} to {other.name}")
            yield
        finally:
            way.kill()
            way.wait()

    def fetch(self, domain, path="/", *options):
        """Fetches a page over HTTP; `options` are curl's."""
        done = self.outside(["curl", "-q", "-sS", "-i", "--max-time", "30", "-H", f"Host: {domain}", *options,
                             f"http://{ADDRESS}{path}"])
        if done.code != 0:
            raise HostError(f"http://{domain}{path}: {done.err}\n{self.journal('apache2')}")
        head, _, body = done.out.partition("\r\n\r\n")
        status, *lines = head.split("\r\n")
        headers = {name.lower(): value for name, value in (line.split(": ", 1) for line in lines)}
        return Response(int(status.split()[1]), headers, body)

    def ssh(self, account, command, *, key=None, input=None, terminal=False):
        """Logs in from outside and runs a command, on a terminal if asked to; `account` is an Account or a user's name."""
        name = account if isinstance(account, str) else account.name
        private = key or (self.key.private if isinstance(account, str) else account.key)
        return self.outside(["ssh", "-F", "/dev/null", "-tt" if terminal else "-T", "-o", "BatchMode=yes", "-o", "IdentitiesOnly=yes",
                             "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null", "-o", "LogLevel=ERROR",
                             "-i", str(private), f"{name}@{ADDRESS}", command], input=input)

    # The database

    def sql(self, statement, *, database="postgres", role=None, password=None):
        """Runs SQL: as the superuser, or as a role that logs in with its password over TCP."""
        argv = ["psql", "-qtAX", "-v", "ON_ERROR_STOP=1", "-d", database, "-c", statement]
        if role is None:
            return self.run(argv, user="postgres")
        return self.run([*argv, "-h", "127.0.0.1", "-U", role, "-w"], env={"PGPASSWORD": password})

    def _visiting(self):
        return ["nsenter", "-t", str(self._process.pid), "-n", "--"]

    def _inside(self, env=None):
        variables = {"PATH": PATH, "HOME": "/root", "LC_ALL": "C.UTF-8", **(env or {})}
        return ["nsenter", "-t", self._first, "-m", "-u", "-i", "-n", "-p", "-C", "--", "env", "-i",
                *(f"{name}={value}" for name, value in variables.items())]


def _run(argv, input, timeout):
    with subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          start_new_session=True) as process:
        try:
            out, err = process.communicate((input or "").encode(), timeout)
        except BaseException as error:
            # nsenter's child would live on and keep the pipes open.
            os.killpg(process.pid, signal.SIGKILL)
            if isinstance(error, subprocess.TimeoutExpired):
                raise HostError(f"{shlex.join(argv)} took longer than {timeout} s") from None
            raise
    return Result(process.returncode, out.decode(errors="replace"), err.decode(errors="replace"))


def _die_with_parent():
    # PR_SET_PDEATHSIG: a test run that is killed takes its hosts with it.
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)
