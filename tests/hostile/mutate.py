#!/usr/bin/python3
"""Tests the tests: changes one thing at a time in the agent's sources and sees whether a test fails.

Usage: tests/hostile/mutate.py [--count N] [--seed N] [--only TEXT] [--folder FOLDER] [--slice K/N] [--minutes M] [--again]
                               [--workers N] [--under COMMAND] [--list]

A mutant is one changed operator, bound, truth value, text or left-out call in src/agent or src/common. N of all that there are
(all of them with 0) are drawn with a fixed seed, built in copies of the tree in the cache folder, one for each worker, and tried with
the unit tests and the protocol tests that concern the source, those that killed others of that source first; the first failure ends a
mutant. What became of each is kept (mutate_results.py): a second run goes on with those that were not tried, unless --again is given,
or their lines have changed. --slice takes the Kth of N parts, --folder those below src/FOLDER; after so many minutes no other is begun.
What does not compile is not counted. Survivors stand in the report with what was changed; those that cannot be seen from outside are in mutants.txt beside
this file, with the reason. Prints the share that was killed. As root.

The mutants run as root, and a mutant may well delete what it should not: unit tests run in a throw-away copy of the root,
protocol tests in the root of their sandbox.
"""

import argparse
import json
import os
import queue
import random
import re
import shlex
import shutil
import subprocess
import sys
import threading
import time
from pathlib import Path

from mutants import TREE, excuses, mutants
from mutate_results import Results, keyed

CACHE = Path(os.environ.get("CORV_CACHE", "/var/cache/corv-agent-dev")) / "mutate"
PATIENCE = 300
UNDER = []  # what every command is run by

# What a source's path below src begins with -> the unit tests and the protocol tests that concern it. The first that fits counts.
CONCERNS = (
    ("agent/files/Helper", "files", "files_helper files_fence files"),
    ("agent/files/", "files tree", "files files_helper files_fence stage"),
    ("common/BackupManifest", "backup", "backup_status backup_run"),
    ("common/BackupFolders", "backup", "backup_status backup_run backup_restore"),
    ("agent/backup/Protocol", "postgres_protocol", "backup_restore"),
    ("agent/backup/Restore", "", "backup_restore"),
    ("agent/backup/Status", "", "backup_status"),
    ("agent/backup/", "backup", "backup_run backup_status backup_restore startup"),
    ("common/Run", "run run_too_long", "runner keys"),
    ("common/Account", "account usage", "names create suspend usage"),
    ("common/Quotas", "quotas", "quota usage delete"),
    ("common/Site", "", "create suspend delete names"),
    ("agent/hosting/Ids", "ids", "create delete leftovers"),
    ("common/FormerIds", "ids", "create delete leftovers"),
    ("agent/hosting/Leftovers", "", "leftovers create delete"),
    ("agent/hosting/Processes", "", "leftovers delete suspend"),
    ("agent/hosting/SharedMemory", "", "leftovers delete"),
    ("agent/hosting/Keys", "", "keys"),
    ("agent/hosting/Usage", "usage", "usage quota"),
    ("agent/hosting/Delete", "", "delete"),
    ("agent/hosting/Suspend", "", "suspend"),
    ("agent/hosting/Database", "", "database create suspend delete backup_restore"),
    ("agent/hosting/Create", "", "create leftovers keys names"),
    ("agent/hosting/", "", "create delete suspend keys names"),
    ("agent/quota/", "quotas", "quota usage delete"),
    ("common/Packages", "", "firewall fail2ban quota"),
    ("agent/security/Firewall", "", "firewall security_status"),
    ("agent/security/Fail2ban", "", "fail2ban security_status"),
    ("agent/security/Updates", "", "updates"),
    ("agent/security/", "security", "firewall fail2ban updates"),
    ("agent/Budget", "budget", "budget socket"),
    ("agent/LocalServer", "", "socket startup dispatch budget"),
    ("agent/Stop", "", "stop"),
    ("agent/host/", "", "host"),
    ("agent/Readiness", "readiness", "socket dispatch startup stop"),
    ("common/AtomicFile", "atomic_file", "quota"),
    ("common/Json", "json", "socket dispatch"),
    ("common/System", "system", "host"),
    ("common/Tree", "tree", "files_helper backup_run"),
    ("common/", "", "runner startup host create"),
    ("", "", "socket dispatch startup stop host description"),
)

HEADERS = ("QCoreApplication", "QDateTime", "QDir", "QFile", "QJsonArray", "QJsonDocument", "QJsonObject", "QProcess",
           "QRegularExpression", "QString", "QStringList", "QTimer", "algorithm", "functional", "optional", "vector")
TARGETS = ("corv-agent", "corv-agent-short", *sorted({f"test_{name}" for _, units, _ in CONCERNS for name in units.split()}))


class TooLong(Exception):
    """A command did not end in time."""


def run(argv, log, patience=PATIENCE, **how):
    """Whether the command ends well."""
    with log.open("ab") as file:
        process = subprocess.Popen([*UNDER, *argv], stdin=subprocess.DEVNULL, stdout=file, stderr=file, start_new_session=True,
                                   **how)
        try:
            return process.wait(patience) == 0
        except subprocess.TimeoutExpired:
            raise TooLong from None
        finally:
            # What a mutant left behind must not disturb the next one.
            try:
                os.killpg(process.pid, 9)
            except ProcessLookupError:
                pass
            process.wait()


# A root in which everything can be deleted, and processes of which all can be killed.
JAIL = r"""
mount -t tmpfs none /mnt && mkdir /mnt/upper /mnt/work /mnt/root
mount -t overlay none -o lowerdir=/,upperdir=/mnt/upper,workdir=/mnt/work /mnt/root
mount -t proc none /mnt/root/proc && mount -t tmpfs none /mnt/root/dev && mount -t tmpfs none /mnt/root/tmp
mknod -m 666 /mnt/root/dev/null c 1 3 && mknod -m 666 /mnt/root/dev/zero c 1 5
mknod -m 666 /mnt/root/dev/urandom c 1 9 && mknod -m 666 /mnt/root/dev/full c 1 7 && mkdir -m 1777 /mnt/root/dev/shm
ln -s /proc/self/fd /mnt/root/dev/fd
cd / && exec chroot /mnt/root sh -c 'ulimit -v 8000000; for test; do "$test" || exit 1; done' sh "$@"
"""
UNSHARE = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--ipc", "sh", "-ec", JAIL, "sh"]


def concern(sources):
    """The unit tests and the protocol tests that concern the sources, each once."""
    found = [next((units, protocols) for prefix, units, protocols in CONCERNS if source.startswith(prefix)) for source in sources]
    units = dict.fromkeys(f"test_{name}" for names, _ in found for name in names.split())
    protocols = dict.fromkeys(f"test_{name}.py" for _, names in found for name in names.split())
    return list(units), list(protocols)


class Worker:
    """A copy of the tree, what is built of it, and the log of all that was run there."""

    def __init__(self, number):
        self.tree = CACHE / str(number) / "tree"
        self.build = CACHE / str(number) / "build"
        self.log = CACHE / str(number) / "log"
        self.failed = ""
        # What was built by a run before is built again only where the tree has changed, or that run ended within a mutant.
        self._copy_tree()
        # Most of what a compiler does for a source is reading Qt's headers, which no mutant changes.
        header = self.build / "qt.h"
        text = "".join(f"#include <{name}>\n" for name in HEADERS)
        if not header.exists() or header.read_text() != text:
            shutil.rmtree(self.build, ignore_errors=True)
            self.build.mkdir()
            header.touch()  # the trial of the compiler knows nothing of Qt
        configure = ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                     f"-DCMAKE_CXX_FLAGS=-g0 -O0 -include {header}"]
        if not run(configure, self.log):
            sys.exit(f"the unchanged tree cannot be configured, see {self.log}")
        if header.read_text() != text:
            header.write_text(text)
            if not run(self._precompile(header), self.log):
                sys.exit(f"Qt's headers cannot be compiled, see {self.log}")
        if not self._make(TARGETS, 3600):
            sys.exit(f"the unchanged tree cannot be built, see {self.log}")

    def _copy_tree(self):
        """Makes the copy the same as the tree; what is the same already keeps its time."""
        names = subprocess.run(["git", "ls-files", "-z"], cwd=TREE, check=True, capture_output=True).stdout.decode().split("\0")
        names = {name for name in names if name and (TREE / name).is_file()}
        for path in [path for path in self.tree.rglob("*") if path.is_file()]:
            if str(path.relative_to(self.tree)) not in names:
                path.unlink()
        for name in names:
            copy, data = self.tree / name, (TREE / name).read_bytes()
            if not copy.exists() or copy.read_bytes() != data:
                copy.parent.mkdir(parents=True, exist_ok=True)
                copy.write_bytes(data)
                shutil.copymode(TREE / name, copy)

    def _precompile(self, header):
        """The command that compiles the agent's sources, for the header that each of them begins with."""
        commands = json.loads((self.build / "compile_commands.json").read_text())
        command = next(shlex.split(entry["command"]) for entry in commands if entry["file"].endswith("/agent/Agent.cpp"))
        flags = command[: command.index("-o")]
        at = flags.index("-include")
        return [*flags[:at], *flags[at + 2 :], "-x", "c++-header", header, "-o", f"{header}.gch"]

    def _make(self, targets, patience=PATIENCE):
        return run(["cmake", "--build", self.build, "-j", "1", "--target", *targets], self.log, patience)

    def test(self, sources, patience=PATIENCE, first=()):
        """What failed of all that concerns the sources: "build", "unit", "protocol", "too long", or nothing. `first` are the protocol
        tests to begin with; the one that failed is in `failed` then."""
        units, protocols = concern(sources)
        files = [f"tests/protocol/{name}" for name in protocols]
        env = os.environ | {"CORV_AGENT": str(self.build / "bin/corv-agent")}
        self.failed = ""
        try:
            if not self._make(["corv-agent", "corv-agent-short", *units]):
                return "build"
            if units and not run([*UNSHARE, *(str(self.build / "bin" / unit) for unit in units)], self.log, patience):
                return "unit"
            argv = ["/usr/bin/python3", "-m", "pytest", "-q", "-x", "-p", "no:cacheprovider"]
            for tests in ([first] if first else []) + [files]:
                self.log.write_bytes(b"")
                if not run([*argv, *tests], self.log, patience, cwd=self.tree, env=env):
                    told = re.search(r"^(?:FAILED|ERROR) (tests/\S.*?\.py::[^\n]*?)(?: - .*)?$", self.log.read_text(errors="replace"),
                                     re.MULTILINE)
                    self.failed = told[1] if told else ""
                    return "protocol"
            return ""
        except TooLong:
            return "too long"

    def try_out(self, source, number, line, other, first):
        """Changes a line, tests, and changes it back."""
        path = self.tree / "src" / source
        original = path.read_text()
        lines = original.splitlines()
        assert lines[number] == line
        lines[number] = other
        path.write_text("\n".join(lines) + "\n")
        try:
            return self.test([source], first=first)
        finally:
            path.write_text(original)


def options():
    parser = argparse.ArgumentParser()
    parser.add_argument("--count", type=int, default=300)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--only", default="", help="sources whose path holds this")
    parser.add_argument("--folder", default="", help="sources below this folder of src")
    parser.add_argument("--slice", default="1/1", help="K/N: the Kth of N parts")
    parser.add_argument("--minutes", type=float, default=0, help="begin with none after so long")
    parser.add_argument("--again", action="store_true", help="also those whose result is known")
    parser.add_argument("--workers", type=int, default=os.cpu_count())
    parser.add_argument("--under", default="", help="what to run every command by, such as 'nice -n 19'")
    parser.add_argument("--list", action="store_true", help="show what would be tried")
    return parser.parse_args()


def draw(given, results):
    """The mutants to be tried, each with its key, and how many there are in all of those that were asked for."""
    everything = [(key, mutant) for key, mutant in keyed(mutants())
                  if given.only in mutant[0] and mutant[0].startswith(given.folder)]
    chosen = list(everything)
    if given.count:
        random.Random(given.seed).shuffle(chosen)
        chosen = chosen[: given.count]
    part, parts = map(int, given.slice.split("/"))
    chosen = chosen[part - 1 :: parts]
    return [one for one in chosen if given.again or results.by(one[0]) is None], len(everything)


def main():
    given = options()
    UNDER.extend(given.under.split())
    results = Results()
    chosen, number = draw(given, results)
    print(f"{number} mutants, {len(chosen)} of them to be tried", flush=True)
    if given.list or not chosen:
        for _, (source, at, line, other) in chosen:
            print(f"{source}:{at + 1}: {line.strip()} -> {other.strip()}")
        return

    excused = excuses()
    killed = {"too long": 0, "build": 0, "unit": 0, "protocol": 0, "": 0, "excused": 0}
    waiting = queue.SimpleQueue()
    for one in enumerate(chosen, 1):
        waiting.put(one)
    lock = threading.Lock()
    ends = time.monotonic() + given.minutes * 60 if given.minutes else None

    def work(worker):
        while ends is None or time.monotonic() < ends:
            try:
                index, (key, (source, at, line, other)) = waiting.get_nowait()
            except queue.Empty:
                return
            began = time.monotonic()
            with lock:
                first = results.killers(source)
            by = worker.try_out(source, at, line, other, first)
            mutant = (source, line.strip(), other.strip())
            with lock:
                results.keep(key, by, worker.failed, time.monotonic() - began)
                if not by and mutant in excused:
                    excused.remove(mutant)
                    by = "excused"
                killed[by] += 1
                print(f"{index:4} {time.monotonic() - began:4.0f} s {by or 'SURVIVED':8} {source}:{at + 1}\t{line.strip()}\t"
                      f"{other.strip()}", flush=True)

    workers = [Worker(number) for number in range(given.workers)]
    # What fails anyhow would kill every mutant.
    if failed := workers[0].test(sorted({mutant[0] for _, mutant in chosen}), 3600):
        sys.exit(f"the unchanged tree fails: {failed} {workers[0].failed}, see {workers[0].log}")
    threads = [threading.Thread(target=work, args=(worker,)) for worker in workers]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()

    tried = sum(killed.values()) - killed["build"] - killed["excused"]
    dead = killed["unit"] + killed["protocol"] + killed["too long"]
    print(f"{tried} tried: {killed['unit']} killed by unit tests, {killed['protocol']} by protocol tests, "
          f"{killed['too long']} by the clock, {killed['']} survived; "
          f"{killed['build']} did not compile, {killed['excused']} cannot be seen. {100 * dead / max(tried, 1):.1f} % killed")


if __name__ == "__main__":
    main()
