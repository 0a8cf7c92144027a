"""What the agent writes, and how each system call of it is made to fail; full file systems in the place of folders."""

import json
import re
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path

from ground import mount
from matrix import leftovers, record, settings, try_again, wrong_account, wrong_agent, wrong_line, wrong_settings
from programs import wait_until
from sandbox import Sandbox
from server import account

# The calls that make, fill and name files, and what they fail with.
ERRORS = {
    "openat": "ENOSPC",
    "write": "ENOSPC",
    "fsync": "EIO",
    "rename": "EROFS",
    "renameat2": "EROFS",
    "mkdir": "ENOSPC",
    "mkdirat": "ENOSPC",
    "ftruncate": "EIO",
    "fchmod": "EIO",
    "chmod": "EIO",
    "fchmodat": "EIO",
    "fchown": "EIO",
}
WRITING = ("O_WRONLY", "O_RDWR", "O_CREAT", "O_TMPFILE")
FILLER = "filler"


@dataclass
class Spot:
    """One system call of a recorded run: the number-th of its name."""

    call: str
    number: int
    path: str  # what it is about; times and random names replaced

    @property
    def parts(self):
        """What of the account is in the file."""
        if "/pool.d/" in self.path:
            return ("pool",)
        # A resumption brings the pool back before it writes the site.
        return ("site", "pool") if "/sites-available/" in self.path else ()

    @property
    def unchecked(self):
        """What does not matter: whether a pool could be parked, and whether there is a folder for logs."""
        return self.parts if self.call.startswith("rename") else ("home",) if self.path.endswith("/logs") else ()

    def __str__(self):
        return f"{self.call} {self.number} of {self.path}"


def _path_in(box, line):
    """The path that a line of strace is about, without the sandbox's own part."""
    before, _, result = line.rpartition(" = ")
    texts = re.findall(r'"([^"]*)"', before.split("(", 1)[1]) if not line.startswith("write") else []
    folders = re.findall(r"\d+<(/[^>]*)>|AT_FDCWD<(/[^>]*)>", before)
    folder = next((one or other for one, other in folders), "")
    path = texts[-1] if texts else ""
    if not path.startswith("/"):
        path = f"{folder}/{path}".rstrip("/").replace("/./", "/")
    path = path.removeprefix(str(box.root))
    path = re.sub(r"\d{8}-\d{6}", "TIME", path)
    path = re.sub(r"(?<=/transfer/)[\w-]{32}$", "DOWNLOAD", path)
    return re.sub(r"(/\.[\w.-]+\.)\w{6}$", r"\1XXXXXX", path)


def _is_writing(line):
    """Whether a line of strace is a call that makes, fills or names a file, and not one that finds it made."""
    if " = -1 " in line:
        return False
    if line.startswith("openat"):
        return any(flag in line for flag in WRITING) and "/dev/null" not in line
    return not re.match(r"write\((\d+<(?!/)|[12]<)", line)


def spots_in(box, text):
    """The spots in what strace wrote."""
    found, numbers = [], {}
    for line in text.splitlines():
        match = re.match(r"(\w+)\(", line)
        if not match or match[1] not in ERRORS:
            continue
        numbers[match[1]] = numbers.get(match[1], 0) + 1
        if _is_writing(line):
            found.append(Spot(match[1], numbers[match[1]], _path_in(box, line)))
    return found


class Trace:
    """strace at the agent for the length of a with block; what it wrote is its text."""

    def __init__(self, box, spot=None):
        self.box = box
        self.file = box.top / "trace"
        self.options = ["-e", "trace=" + ",".join(ERRORS)]
        if spot:
            self.options += ["-e", f"inject={spot.call}:error={ERRORS[spot.call]}:when={spot.number}"]

    def __enter__(self):
        command = ["strace", "-qq", "-y", "-s", "0", "-o", self.file, *self.options, "-p", str(self.box.agent.pid)]
        self.process = subprocess.Popen(command, stderr=subprocess.DEVNULL)
        status = Path(f"/proc/{self.box.agent.pid}/status")
        wait_until(lambda: "TracerPid:\t0" not in status.read_text(), "strace")
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()

    @property
    def text(self):
        return self.file.read_text(errors="replace")


def _request(box, client, scenario):
    box.keep_secrets(scenario.args)
    client.send(json.dumps({"cmd": scenario.command, "args": scenario.args}).encode() + b"\n")
    return client.line()


_spots = {}


def spots(ground, scenario):
    """What a scenario's undisturbed run writes, found out once in this process."""
    if scenario.name not in _spots:
        box = Sandbox(ground)
        try:
            scenario.lay(box)
            with box.connect() as client, Trace(box) as trace:
                _request(box, client, scenario)
            _spots[scenario.name] = spots_in(box, trace.text)
        finally:
            box.close()
    return _spots[scenario.name]


def _answered(ground, scenario, target, lay, around):
    """Runs a scenario against a failing disk, and returns what did not hold. lay changes the sandbox beforehand; around
    gives what the request is made within; target is to blame for what may differ."""
    recording = record(ground, scenario)
    box = Sandbox(ground)
    try:
        scenario.lay(box)
        undo = lay(box)
        before = settings(box)
        with box.connect() as client:
            client.send(b'{"cmd":"ping"}\n')
            box.took("ping", client.reply())
            descriptors = box.agent.fds()
            with around(box) as trace:
                line = _request(box, client, scenario)
            wrong = wrong_line(line)
            if wrong:
                return wrong
            reply = box.took(scenario.command, json.loads(line))
            if trace and not any(
                "(INJECTED)" in one and _path_in(box, one) == target.path for one in trace.text.splitlines()
            ):
                wrong.append(MISSED)
            wrong += wrong_account(scenario, target, reply, account(box))
            wrong += wrong_settings(scenario, recording, before, reply, settings(box))
            wrong += [path for path in leftovers(box, scenario, recording, target) if FILLER not in path]
            wrong += wrong_agent(box, client, descriptors)
        undo()
        if scenario.ok and not reply["ok"]:
            wrong += try_again(box, scenario)
        return wrong + box.finish()
    finally:
        box.close()


MISSED = "the fault did not come about"


def failing_call(ground, scenario, spot):
    """Runs a scenario in which one system call fails, and returns what did not hold as a list of sentences."""
    # The agent's loop wakes itself up by a write, once more or less often from run to run: another call is hit then.
    for _ in range(5):
        wrong = _answered(ground, scenario, spot, lambda box: lambda: None, lambda box: Trace(box, spot))
        if MISSED not in wrong:
            break
    return wrong


@dataclass
class Folder:
    """A folder on a full file system, as what went wrong."""

    path: str
    parts: tuple
    unchecked: tuple = ()
    argv: tuple = ()

    def __str__(self):
        return self.path


class _Nothing:
    def __enter__(self):
        return None

    def __exit__(self, *_):
        pass


def _fill(box, path, options):
    """Puts a full file system in a folder's place, with the folder's contents; returns what empties it again."""
    folder = box.path(path)
    status = folder.stat()
    aside = box.top / "aside"
    subprocess.run(["cp", "-a", folder, aside], check=True)
    mount("tmpfs", folder, "tmpfs", 0, f"mode={status.st_mode & 0o7777:o},uid={status.st_uid},gid={status.st_gid},{options}")
    subprocess.run(["cp", "-a", f"{aside}/.", folder], check=True)
    shutil.rmtree(aside)
    fillers = []
    try:
        while True:
            filler = folder / f"{FILLER}{len(fillers)}"
            fillers.append(filler)
            with filler.open("wb", buffering=0) as file:
                while "nr_inodes" not in options:
                    file.write(b"x" * 4096)
    except OSError:
        pass
    return lambda: [filler.unlink(missing_ok=True) for filler in fillers]


FULL = {"no room": "size=1m", "no room for another file": "nr_inodes=512"}


def full_folders(ground, scenario):
    """The folders that a scenario's run writes to and that are there before it."""
    box = Sandbox(ground)
    try:
        scenario.lay(box)
        found = {}
        for spot in spots(ground, scenario):
            if spot.call == "fsync":
                continue
            folder = Path(spot.path).parent
            while not box.path(folder).is_dir():
                folder = folder.parent
            assert folder != Path("/")
            # Where the agent's own socket is: without room there it does not start.
            if folder == Path("/run/corvane"):
                continue
            parts = found.setdefault(str(folder), set())
            parts.update(spot.parts)
        return [Folder(path, tuple(parts)) for path, parts in sorted(found.items())]
    finally:
        box.close()


def full_disk(ground, scenario, folder, kind):
    """Runs a scenario with one of its folders on a full file system, and returns what did not hold."""
    # useradd and tar write there too, and fail as they see fit.
    if folder.path in ("/home", "/etc"):
        folder = Folder(folder.path, (*folder.parts, "user", "group", "login", "home"))
    return _answered(ground, scenario, folder, lambda box: _fill(box, folder.path, FULL[kind]), lambda box: _Nothing())
