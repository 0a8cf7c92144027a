"""Sandboxes for black-box tests of the agent: a private root, the real executable, and stand-ins for the system's tools.

docs/testing.md ("Protocol floor") shows how tests use this; the doc strings here say what each call does.
"""

import difflib
import json
import os
import shutil
import signal
import stat
import subprocess
from pathlib import Path

from described import Exchange
from ground import (
    FILE_SYSTEMS,
    FOLDERS,
    MS_BIND,
    MS_NOSUID,
    OTHER_TOOLS,
    REAL_TOOLS,
    agent_executable,
    mount,
    unmount,
)
from programs import Call, Client, Process, wait_until

AGENT_PATH = "/usr/libexec/corvane/corv-agent"
SOCKET = "/run/corvane/agent.sock"
LISTENING = "agent: listening on %s"

# A program, with its options, that the agent runs under: valgrind.
CHECKER = os.environ.get("CORV_TEST_WRAPPER", "").split()


class Sandbox:
    """A private root with the agent in it. Attributes that tests read: root, agent (the Process), log_lines."""

    def __init__(self, ground):
        self.ground = ground
        number = next(ground.numbers)
        self.top = ground.base / str(number)
        self.root = self.top / "r"
        for folder in ("u", "w", "uu", "uw", "r"):
            (self.top / folder).mkdir(parents=True)
        self._overlay(ground.layer, "u", "w", self.root)
        self._overlay("/usr", "uu", "uw", self.root / "usr")
        for folder in FILE_SYSTEMS:
            mount("tmpfs", self.root / folder, "tmpfs", MS_NOSUID, f"mode={FOLDERS.get(folder, 0o755):o}")
        (self.root / "run/corvane").mkdir()
        (self.root / "run/lock").mkdir()
        (self.root / "var/log/apache2").mkdir()
        (self.root / "var/log/corvane").mkdir()
        self.state = self.root / "standins/state"
        self.executable = agent_executable()
        self.agent = None
        self.socket_path = SOCKET
        self.expected_log = []
        self.any_order = False
        self.secrets = set()
        self.replies = []
        self.described = True
        self.undescribed = []
        self.check_log = True
        self.expected_children = False
        self.loose_calls = set()
        self._exit_code = 0
        self._installed = None
        self._rules = []
        self._forgotten = 0
        self._log = self.top / "stderr"
        self._out = self.top / "stdout"
        self._log.touch()
        for name in REAL_TOOLS:
            self.answer(name, real=True)
        self.settings("")

    def _overlay(self, lower, upper, work, target):
        options = f"lowerdir={lower},upperdir={self.top / upper},workdir={self.top / work},index=off,metacopy=off"
        mount("overlay", target, "overlay", 0, options)

    # Files

    def path(self, inside):
        """The path, as the test sees it, of an absolute path inside the sandbox; links are not followed."""
        return self.root / str(inside).lstrip("/")

    def write(self, inside, content="", mode=0o644, owner=None):
        """Writes a file (text or bytes), making missing folders; owner is "user:group" of the sandbox."""
        path = self.path(inside)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content.encode() if isinstance(content, str) else content)
        path.chmod(mode)
        if owner:
            os.chown(path, *self.ids(owner))
        return path

    def mkdir(self, inside, mode=0o755, owner=None):
        path = self.path(inside)
        path.mkdir(parents=True, exist_ok=True)
        path.chmod(mode)
        if owner:
            os.chown(path, *self.ids(owner))
        return path

    def symlink(self, inside, target):
        path = self.path(inside)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.symlink_to(target)
        return path

    def read(self, inside):
        return self.path(inside).read_text()

    def exists(self, inside):
        """True for whatever stands at the path, a dangling link too."""
        return os.path.lexists(self.path(inside))

    def entry(self, inside):
        """What stands at a path as text: "0750 alice:www-data", "link -> target", or "missing"."""
        path = self.path(inside)
        try:
            info = path.lstat()
        except FileNotFoundError:
            return "missing"
        if stat.S_ISLNK(info.st_mode):
            return f"link -> {os.readlink(path)}"
        users = {int(line.split(":")[2]): line.split(":")[0] for line in self.read("/etc/passwd").splitlines()}
        groups = {int(line.split(":")[2]): line.split(":")[0] for line in self.read("/etc/group").splitlines()}
        user, group = users.get(info.st_uid, info.st_uid), groups.get(info.st_gid, info.st_gid)
        return f"{stat.S_IMODE(info.st_mode):04o} {user}:{group}"

    def tree(self, inside):
        """Everything below a folder: relative path -> entry(), with the content of files appended after a blank."""
        found = {}
        top = self.path(inside)
        for folder, folders, files in os.walk(top):
            for name in folders + files:
                path = Path(folder, name)
                text = self.entry(f"{inside}/{path.relative_to(top)}")
                if path.is_file() and not path.is_symlink():
                    text += " " + path.read_bytes().decode("utf-8", "surrogateescape")
                found[str(path.relative_to(top))] = text
        return found

    def ids(self, owner):
        """(uid, gid) of "user:group" by the sandbox's own databases."""
        user, _, group = owner.partition(":")
        uids = {line.split(":")[0]: int(line.split(":")[2]) for line in self.read("/etc/passwd").splitlines()}
        gids = {line.split(":")[0]: int(line.split(":")[2]) for line in self.read("/etc/group").splitlines()}
        return uids[user], gids[group or user]

    def uid(self, user):
        return self.ids(user + ":root")[0]

    def small_disk(self, inside, size="4k", files=0):
        """Puts a file system of that size (whole pages; inode and folders are free) at a folder, which can hold so many files, itself
        among them; 0: any number."""
        self.mkdir(inside)
        mount("tmpfs", self.path(inside), "tmpfs", 0, f"mode=755,size={size},nr_inodes={files}")

    # The system around the agent

    def php(self, *versions):
        """Makes exactly these PHP-FPM versions installed (the sandbox begins with 8.2); none at all is possible."""
        shutil.rmtree(self.path("/etc/php"), ignore_errors=True)
        for version in versions:
            self.mkdir(f"/etc/php/{version}/fpm/pool.d")

    def add_user(self, name, gecos="", uid=None, group=True, home=True, shell="/bin/bash"):
        """Adds a user of that comment field to the databases, with a group of its name and a home it owns."""
        lines = self.read("/etc/passwd").splitlines()
        number = uid or max([1000] + [int(line.split(":")[2]) for line in lines if int(line.split(":")[2]) < 60000]) + 1
        if group:
            self.add_group(name, number)
        with self.path("/etc/passwd").open("a") as file:
            file.write(f"{name}:x:{number}:{number if group else 100}:{gecos}:/home/{name}:{shell}\n")
        with self.path("/etc/shadow").open("a") as file:
            file.write(f"{name}:!:19000:0:99999:7:::\n")
        if home:
            self.mkdir(f"/home/{name}")
            os.chown(self.path(f"/home/{name}"), number, number if group else 100)
        return number

    def add_group(self, name, gid):
        with self.path("/etc/group").open("a") as file:
            file.write(f"{name}:x:{gid}:\n")
        with self.path("/etc/gshadow").open("a") as file:
            file.write(f"{name}:!::\n")

    def add_account(self, name, domain="example.org"):
        """Adds an account as creation leaves it, but for its files outside the home."""
        number = self.add_user(name, f"Corvane account,{domain}")
        home = self.path(f"/home/{name}")
        for folder, mode, group in (
            ("public_html", 0o2750, 33),
            ("logs", 0o755, number),
            ("tmp", 0o700, number),
            (".ssh", 0o700, number),
        ):
            (home / folder).mkdir()
            os.chown(home / folder, number, group)
            (home / folder).chmod(mode)
        os.chown(home, number, 33)
        home.chmod(0o710)
        return number

    def has_user(self, name):
        return any(line.startswith(name + ":") for line in self.read("/etc/passwd").splitlines())

    # Stand-ins

    def answer(self, program, *args, **how):
        """Makes calls of a stand-in answer so; the rule made last that matches wins. See docs/testing.md.

        args match the call's arguments one by one as shell patterns; a final ... lets more follow; none match any call.
        Conditions: holds=BYTES (the input must hold them), call=N (only the N-th such call from now on),
        calls=(FIRST, LAST). Answers: exit, signal, out, err (text or bytes), real=True, hang=True, wait=PATH (until it
        exists inside), unread=True (standard input closed unread), ignore_input=True (left open, unread),
        flood_out/flood_err=BYTES (negative for ever), write={PATH: CONTENT}, child=PATH (leaves a child with the pipes
        until PATH exists), session_child=PATH (the same in a session of its own), shell=TEXT (run by sh, with the call's
        name and arguments as $0 and $@; its exit code is the answer), noise=BYTES (so many bytes of every value to both
        outputs), tell=SIGNAL (to the parent, first of all), rest=True (the rules made before this one answer in a process
        of its own; what is said here beside it comes after their end), remove=PATH, tell_after=SIGNAL.
        """
        if program not in REAL_TOOLS + OTHER_TOOLS:
            self.add_standin(program)
        raw = lambda value: (value if isinstance(value, bytes) else os.fsencode(str(value))).hex()
        lines = [f"rule {len(self._rules)} {program}"]
        if args:
            more = args[-1] is ...
            patterns = args[:-1] if more else args
            lines.append("args" + ("+ " if more else "= ") + " ".join("." + raw(pattern) for pattern in patterns))
        if "holds" in how:
            lines.append("holds " + raw(how.pop("holds")))
        first, last = how.pop("calls", (0, 0))
        if "call" in how:
            first = last = how.pop("call")
        if first:
            lines.append(f"calls {first} {last}")
        order = {
            "unread": lambda value: ["unread"] * value,
            "ignore_input": lambda value: ["ignoreinput"] * value,
            "tell": lambda value: [f"tell {int(value)}"],
            "noise": lambda value: [f"noise {value}"],
            "rest": lambda value: ["rest"] * value,
            "remove": lambda value: [f"remove {raw(value)}"],
            "tell_after": lambda value: [f"tell {int(value)}"],
            "wait": lambda value: [f"wait {raw(value)}"],
            "write": lambda value: [f"write {raw(path)} {raw(content)}" for path, content in value.items()],
            "child": lambda value: [f"child group {raw(value)}"],
            "session_child": lambda value: [f"child session {raw(value)}"],
            "out": lambda value: [f"stdout {raw(value)}"],
            "err": lambda value: [f"stderr {raw(value)}"],
            "flood_out": lambda value: [f"flood 1 {value}"],
            "flood_err": lambda value: [f"flood 2 {value}"],
            "real": lambda value: ["real"] * value,
            "shell": lambda value: [f"shell {raw(value)}"],
            "hang": lambda value: ["hang"] * value,
            "signal": lambda value: [f"signal {int(value)}"],
            "exit": lambda value: [f"exit {value}"],
        }
        unknown = set(how) - set(order)
        if unknown:
            raise TypeError(f"answer() knows no {', '.join(sorted(unknown))}")
        for key, write in order.items():
            if key in how:
                lines += write(how[key])
        lines.append("end")
        self._rules.insert(0, "\n".join(lines) + "\n")
        fresh = self.state / "rules.new"
        fresh.write_text("".join(self._rules))
        fresh.chmod(0o644)
        fresh.rename(self.state / "rules")

    def remove_standin(self, program):
        """Leaves the program's name without any executable."""
        self.path(f"/standins/bin/{program}").unlink()

    def add_standin(self, program):
        """Gives a name, or an absolute path, a stand-in."""
        path = self.path(program if program.startswith("/") else f"/standins/bin/{program}")
        path.parent.mkdir(parents=True, exist_ok=True)
        if os.path.lexists(path):
            if not program.startswith("/"):
                return
            path.unlink()
        shutil.copy(self.ground.layer / "standins/standin", path)

    def calls(self, *names):
        """All recorded calls in order since the start or forget_calls(), or those of the named programs only."""
        lines = (self.state / "record").read_text().splitlines()[self._forgotten :]
        found = [Call(json.loads(line), self.state) for line in lines]
        return [call for call in found if not names or call.name in names]

    def argvs(self, *names):
        """The calls as lists of words. What runuser starts shows in runuser's own words, not as a call of its own."""
        return [call.argv for call in self.folded_calls() if not names or call.name in names]

    def folded_calls(self):
        """calls(), without those that a runuser started; each of these is its runuser call's .inner."""
        found = []
        waiting = []
        for call in self.calls():
            outer = next((outer for outer in waiting if outer.args[outer.args.index("--") + 1 :] == call.argv), None)
            if outer:
                waiting.remove(outer)
                outer.inner = call
                continue
            if call.name == "runuser" and "--" in call.args:
                waiting.append(call)
            found.append(call)
        return found

    def scripts(self):
        """The standard inputs, as text, of all psql calls in order."""
        return [(call.stdin or b"").decode() for call in self.calls("psql")]

    def forget_calls(self):
        """Lets calls(), argvs() and scripts() begin afresh; the checks at the end still see everything."""
        self._forgotten = len((self.state / "record").read_text().splitlines())

    def wait_for_call(self, program, *args, count=1):
        """Waits until a program was called (with these first arguments) so often; returns the last such call."""
        def found():
            calls = [call for call in self.calls(program) if call.args[: len(args)] == list(args)]
            return calls[count - 1] if len(calls) >= count else None
        return wait_until(found, f"call {count} of {program} {' '.join(args)}")

    # The agent

    def settings(self, text=None, **keys):
        """Writes the settings file (it begins empty): from text, or from keys such as agent_allowed_user="alice"."""
        if text is None:
            sections = {}
            for key, value in keys.items():
                section, _, name = key.partition("_")
                sections.setdefault(section, []).append(f"{name}={value}\n")
            text = "".join(f"[{section}]\n" + "".join(lines) for section, lines in sections.items())
        self.write("/etc/corvane/corvane.ini", text)

    @property
    def sanitized(self):
        """Whether the agent carries a sanitizer or runs under a checker, which takes memory of its own."""
        return bool(CHECKER) or b"__asan_init" in self.executable.read_bytes()

    def environment(self, **extra):
        """The environment that programs in the sandbox get; a value of None removes a variable."""
        env = {"PATH": "/standins/bin", "HOME": "/root", "LC_ALL": "C"}
        for key, value in os.environ.items():
            if key.endswith("SAN_OPTIONS") or key.startswith("GCOV_"):
                env[key] = value
        env.update(extra)
        return {key: value for key, value in env.items() if value is not None}

    def launch(self, *args, env=None, executable=None, wrapper=(), **how):
        """Starts the agent with arguments and returns without waiting for it to listen.

        env adds to the environment; wrapper is a program (with arguments) that runs the agent; uid, gid, blocked (a
        signal) and hostname say how it runs.
        """
        if self.agent is not None:
            self.agent.close()
        target = self.path(AGENT_PATH)
        source = self.ground.agent(executable or self.executable)
        target.parent.mkdir(parents=True, exist_ok=True)
        if self._installed != source:
            if self._installed:
                unmount(target)
            target.touch()
            mount(source, target, None, MS_BIND)
            self._installed = source
        with self._log.open("ab") as log, self._out.open("ab") as out:
            argv = [*(wrapper or CHECKER), AGENT_PATH, *args]
            self.agent = Process(self, argv, self.environment(**(env or {})), out, log, **how)
        return self.agent

    def start(self, *args, **how):
        """Starts the agent and waits until it listens; declares the line that says so."""
        self.launch(*args, **how)
        self.logs(LISTENING % self.socket_path)
        wait_until(lambda: self.listening() or not self.agent.running(), "the agent's socket")
        assert self.agent.running(), f"the agent ended with {self.agent.wait()}: {self.log_lines}"
        return self.agent

    def listening(self):
        return LISTENING % self.socket_path in self.log_lines[self._began() :]

    def _began(self):
        """Where the present start's lines begin: after the declared lines that came before it."""
        return max(0, len(self.expected_log) - 1) if not self.any_order else 0

    def run_agent(self, *args, **how):
        """Runs the agent to its end: (exit code, standard output as text). Its standard error goes to the log."""
        before = self._out.stat().st_size if self._out.exists() else 0
        process = self.launch(*args, **how)
        code = process.wait()
        process.close()
        self.agent = None
        return code, self._out.read_bytes()[before:].decode("utf-8", "surrogateescape")

    def run(self, *argv, input=None, env=None):
        """Runs a program in the sandbox to its end, beside the agent: (exit code, standard output, standard error)."""
        env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", **(env or {})}
        host = self.agent if self.agent and self.agent.running() else None
        place = host or Process(self, ["/bin/sleep", "infinity"], env, subprocess.DEVNULL, subprocess.DEVNULL)
        try:
            enter = ["nsenter", f"--target={place.pid}", "--pid", "--uts", "--ipc", f"--root={self.root}", "--wd=/"]
            data = input.encode() if isinstance(input, str) else input or b""
            done = subprocess.run([*enter, *argv], input=data, capture_output=True, env=env)
        finally:
            if place is not host:
                place.close()
        text = [stream.decode("utf-8", "surrogateescape") for stream in (done.stdout, done.stderr)]
        return done.returncode, *text

    def connect(self, uid=0, gid=0):
        """A connection whose peer is that uid, starting the agent if it does not run."""
        if self.agent is None:
            self.start()
        exchange = Exchange(self.undescribed) if self.described else None
        return Client(str(self.path(self.socket_path)), uid, gid, exchange)

    def request(self, command, args=None, **more):
        """Asks for a command on a connection of its own and returns the reply; declares the log line that belongs to it."""
        arguments = {**(args or {}), **more}
        self.keep_secrets(arguments)
        with self.connect() as client:
            client.send(json.dumps({"cmd": command, "args": arguments}).encode() + b"\n")
            return self.took(command, client.reply())

    def took(self, command, reply, uid=0):
        """Takes note of a reply that a test received itself, and declares the log line that belongs to it."""
        self.replies.append(reply)
        self.keep_secrets(reply)
        if reply == {"ok": False, "error": "unknown command"}:
            self.logs(f"agent: uid {uid} sent unknown command '{command[:64]}'")
        else:
            self.logs(f"agent: uid {uid} ran {command} -> {'ok' if reply.get('ok') is True else 'failed'}")
        return reply

    def stop(self, number=signal.SIGTERM):
        """Ends the agent by a signal and returns its exit code."""
        self.agent.signal(number)
        code = self.agent.wait()
        self.agent.close()
        self.agent = None
        return code

    # What is checked at the end

    def keep_secrets(self, values):
        """Declares as secret what the known members hold, but for what is so short that it may stand elsewhere by chance."""
        for key in ("dbPassword", "password", "sshKey", "keys", "content", "data"):
            value = values.get(key) if isinstance(values, dict) else None
            for text in value if isinstance(value, list) else [value]:
                if isinstance(text, str) and len(text.strip()) >= 20:
                    self.secrets.add(text.strip())

    def secret(self, text):
        """Declares a text as secret."""
        self.secrets.add(text)

    @property
    def log_lines(self):
        """The agent's standard error so far, as lines."""
        text = self._log.read_bytes().decode("utf-8", "backslashreplace")
        return text.split("\n")[:-1] if text.endswith("\n") else text.split("\n") if text else []

    def logs(self, *lines):
        """Declares lines of the agent's standard error, in this order; all it holds at the end must be declared."""
        self.expected_log += lines

    def logs_in_any_order(self):
        """Lets the declared lines come in any order, for tests with several clients at a time."""
        self.any_order = True

    def wait_for_log(self, line):
        """Declares a line and waits for it."""
        self.logs(line)
        count = self.expected_log.count(line)
        wait_until(lambda: self.log_lines.count(line) >= count, f"log line {line!r}")

    def allows_undescribed_replies(self):
        """Declares that stand-ins answer for the file helper: what the replies hold from now on is theirs, and any will do."""
        self.described = False

    def allows_children(self):
        """Declares that the agent has running children when the test ends."""
        self.expected_children = True

    def allows_loose_calls(self, *names):
        """Declares that calls of these programs were not started by the agent itself, so that nothing is asked of them."""
        self.loose_calls |= set(names)

    def finish(self):
        """Ends the agent and returns what is wrong with what it left, as a list of sentences."""
        wrong = []
        if self.agent is not None:
            if self.agent.running():
                if not self.expected_children:
                    children = self.agent.children()
                    if children:
                        wrong.append(f"the agent still has the children {children}")
                self.agent.signal(signal.SIGTERM)
            try:
                code = self.agent.wait()
                if code != self._exit_code:
                    wrong.append(f"the agent ended with {code}")
            except AssertionError as error:
                wrong.append(str(error))
        lines = self.log_lines
        if self.check_log:
            expected = sorted(self.expected_log) if self.any_order else self.expected_log
            if (sorted(lines) if self.any_order else lines) != expected:
                wrong.append("standard error differs from what was declared:\n" + _difference(expected, lines))
        self._forgotten = 0
        calls = self.calls()
        for call in calls:
            wrong += self._call_problems(call)
            if call.name == "psql":
                for line in (call.stdin or b"").decode("utf-8", "replace").splitlines():
                    if line.startswith("\\set pw '"):
                        self.secret(line[9:-1])
        wrong += self._leaks(lines, calls)
        return wrong + sorted(set(self.undescribed))

    def _call_problems(self, call):
        if call.name in self.loose_calls:
            return []
        wrong = []
        extra = {fd: target for fd, target in call.fds.items() if fd > 2}
        if extra:
            wrong.append(f"{call} inherited the descriptors {extra}")
        if call.blocked or call.ignored:
            wrong.append(f"{call} inherited blocked {call.blocked:x} or ignored {call.ignored:x} signals")
        if call.env.get("LC_ALL") != "C.UTF-8":
            wrong.append(f"{call} ran with LC_ALL={call.env.get('LC_ALL')}")
        passed = {key: value for key, value in call.env.items()
                  if key.startswith(("PG", "LD_")) or key in ("CORV_CONFIG", "NOTIFY_SOCKET")}
        if passed != _given_to(call):
            wrong.append(f"{call} was given {passed}")
        return wrong

    def _leaks(self, lines, calls):
        wrong = []
        for secret in self.secrets:
            if any(secret in line for line in lines):
                wrong.append(f"the log holds the secret {secret!r}")
            for call in calls:
                if any(secret in arg for arg in call.args):
                    wrong.append(f"{call.name} was given the secret {secret!r} as an argument")
                if any(secret in value for value in call.env.values()):
                    wrong.append(f"{call.name} was given the secret {secret!r} in its environment")
            if any(secret in str(reply.get("error", "")) for reply in self.replies if isinstance(reply, dict)):
                wrong.append(f"an error reply holds the secret {secret!r}")
        return wrong

    def close(self):
        """Ends every process and removes every mount and file of the sandbox."""
        if self.agent is not None:
            self.agent.close()
            self.agent = None
        unmount(self.root)
        shutil.rmtree(self.top)


def _difference(expected, found):
    return "\n".join(difflib.unified_diff(expected, found, "declared", "found", lineterm="", n=1))


def _given_to(call):
    """The variables of PostgreSQL, the loader and the agent itself that a call has to have been given: these, no others."""
    program = call.args[3] if call.name == "runuser" else call.name
    if call.args[-1:] in (["--version"], ["/dev/null"]):
        return {}
    if program == "psql":
        return {"PGOPTIONS": "-csearch_path=pg_catalog -clock_timeout=5s"}
    if program == "pg_restore":
        return {
            "PGHOST": "/run/corvane/restore",
            "PGPORT": "5432",
            "PGUSER": call.args[-1].removesuffix("__restore"),
            "PGOPTIONS": "-cdefault_transaction_read_only=off -crole=none",
        }
    return {}


def runuser(user, *argv):
    """The words of a call through runuser."""
    return ["runuser", "-u", user, "--", *argv]


# How every SQL script is run.
PSQL = runuser("postgres", "psql", "-qtAX", "-v", "ON_ERROR_STOP=1")
