#!/usr/bin/python3
"""Tests the tests: changes one thing at a time in the agent's sources and sees whether a test fails.

Usage: tests/hostile/mutate.py [--count N] [--seed N] [--skip N] [--only TEXT] [--workers N] [--under COMMAND] [--list]

A mutant is one changed operator, bound, truth value, text or left-out call in src/agent or src/common. N of all that there are
(all of them with 0) are drawn with a fixed seed, built in copies of the tree in the cache folder, one for each worker, and tried with
the unit tests and the protocol tests that concern the source; the first failure ends a mutant. What does not compile is not
counted. Survivors stand in the report with what was changed; those that cannot be seen from outside are in mutants.txt beside
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

TREE = Path(__file__).resolve().parents[2]
CACHE = Path(os.environ.get("CORV_CACHE", "/var/cache/corv-agent-dev")) / "mutate"
EXCUSES = Path(__file__).with_name("mutants.txt")
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

OPERATORS = (
    (r"(?<=\s)==(?=\s)", "!="), (r"(?<=\s)!=(?=\s)", "=="), (r"(?<=\s)<(?=\s)", "<="), (r"(?<=\s)<=(?=\s)", "<"),
    (r"(?<=\s)>(?=\s)", ">="), (r"(?<=\s)>=(?=\s)", ">"), (r"&&", "||"), (r"(?<=\w\s)\|\|", "&&"),
    (r"(?<=[(\s])!(?=[\w(:])", ""), (r"\btrue\b", "false"), (r"\bfalse\b", "true"), (r"(?<=\s)\+(?=\s)", "-"),
    (r"(?<=\s)-(?=\s\w)", "+"),
)
NUMBER = re.compile(r"(?<![\w.\"'{%])\d[\d']*(?![\w.\"])")
TEXT = re.compile(r'"([^"\\]|\\.)*"')
CALL = re.compile(r"^\s+(\(void\))?[\w:.>-]+\(.*\);( //.*)?$")


def mutants():
    """All of them: (path below src, number of the line from 0, the line, the changed line)."""
    found = []
    for path in sorted(path for room in ("agent", "common") for path in (TREE / "src" / room).rglob("*.cpp")):
        source = str(path.relative_to(TREE / "src"))
        raw = False
        for number, line in enumerate(path.read_text().splitlines()):
            raw = raw or 'R"(' in line
            code = line.split("//")[0] if "://" not in line else line
            if raw:
                # A template: its text is changed, nothing else.
                if line.strip() and ')"' not in line and 'R"(' not in line:
                    found.append((source, number, line, line + "x"))
                raw = ')"' not in line
                continue
            if not code.strip() or code.lstrip().startswith(("#", "using", "namespace", "static_assert", "*")):
                continue
            texts = [match.span() for match in TEXT.finditer(code)]
            inside = lambda at: any(begin <= at < end for begin, end in texts)  # noqa: E731
            for pattern, other in OPERATORS:
                for match in re.finditer(pattern, code):
                    if not inside(match.start()):
                        found.append((source, number, line, line[:match.start()] + other + line[match.end():]))
            for match in NUMBER.finditer(code):
                if not inside(match.start()):
                    other = str(int(match[0].replace("'", "")) + 1)
                    if match[0].startswith("0") and len(match[0]) > 1:
                        other = "0" + oct(int(match[0].replace("'", ""), 8) + 1)[2:]
                    found.append((source, number, line, line[:match.start()] + other + line[match.end():]))
            for begin, end in texts:
                if end - begin > 2:
                    found.append((source, number, line, line[:begin] + '"x' + line[begin + 1:]))
            if CALL.match(line) and not re.match(r"\s+(return|delete|using)\b", line):
                found.append((source, number, line, ""))
    return found


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
        shutil.rmtree(CACHE / str(number), ignore_errors=True)
        self.tree.mkdir(parents=True)
        packed = subprocess.run(["git", "ls-files", "-z"], cwd=TREE, check=True, capture_output=True).stdout
        packed = subprocess.run(["tar", "-c", "--null", "-T", "-"], cwd=TREE, input=packed, check=True, capture_output=True)
        subprocess.run(["tar", "-x", "-C", self.tree], input=packed.stdout, check=True)
        # Most of what a compiler does for a source is reading Qt's headers, which no mutant changes.
        header = self.build / "qt.h"
        self.build.mkdir()
        header.touch()  # the trial of the compiler knows nothing of Qt
        configure = ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                     f"-DCMAKE_CXX_FLAGS=-g0 -O0 -include {header}"]
        if not run(configure, self.log):
            sys.exit(f"the unchanged tree cannot be configured, see {self.log}")
        header.write_text("".join(f"#include <{name}>\n" for name in HEADERS))
        if not run(self._precompile(header), self.log) or not self._make(TARGETS, 3600):
            sys.exit(f"the unchanged tree cannot be built, see {self.log}")

    def _precompile(self, header):
        """The command that compiles the agent's sources, for the header that each of them begins with."""
        commands = json.loads((self.build / "compile_commands.json").read_text())
        command = next(shlex.split(entry["command"]) for entry in commands if entry["file"].endswith("/agent/Agent.cpp"))
        flags = command[: command.index("-o")]
        at = flags.index("-include")
        return [*flags[:at], *flags[at + 2 :], "-x", "c++-header", header, "-o", f"{header}.gch"]

    def _make(self, targets, patience=PATIENCE):
        return run(["cmake", "--build", self.build, "-j", "1", "--target", *targets], self.log, patience)

    def test(self, sources, patience=PATIENCE):
        """What failed of all that concerns the sources: "build", "unit", "protocol", "too long", or nothing."""
        units, protocols = concern(sources)
        files = [f"tests/protocol/{name}" for name in protocols]
        env = os.environ | {"CORV_AGENT": str(self.build / "bin/corv-agent")}
        try:
            if not self._make(["corv-agent", "corv-agent-short", *units]):
                return "build"
            if units and not run([*UNSHARE, *(str(self.build / "bin" / unit) for unit in units)], self.log, patience):
                return "unit"
            argv = ["/usr/bin/python3", "-m", "pytest", "-q", "-x", "-p", "no:cacheprovider", *files]
            return "" if run(argv, self.log, patience, cwd=self.tree, env=env) else "protocol"
        except TooLong:
            return "too long"

    def try_out(self, source, number, line, other):
        """Changes a line, tests, and changes it back."""
        path = self.tree / "src" / source
        original = path.read_text()
        lines = original.splitlines()
        assert lines[number] == line
        lines[number] = other
        path.write_text("\n".join(lines) + "\n")
        try:
            return self.test([source])
        finally:
            path.write_text(original)


def excuses():
    """The mutants that cannot be seen: (source, line, changed line), both without the blanks around. In the file a tab stands
    between these and before the reason. Each is one place: where a line is there twice, a second survivor is none of them."""
    known = []
    for line in EXCUSES.read_text().splitlines():
        fields = line.split("\t")
        if len(fields) == 4:
            known.append(tuple(field.strip() for field in fields[:3]))
    return known


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--count", type=int, default=300)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--skip", type=int, default=0, help="leave out the first ones that are drawn")
    parser.add_argument("--workers", type=int, default=os.cpu_count())
    parser.add_argument("--only", default="", help="sources whose path holds this")
    parser.add_argument("--under", default="", help="what to run every command by, such as 'nice -n 10'")
    parser.add_argument("--list", action="store_true", help="show what would be tried")
    options = parser.parse_args()
    UNDER.extend(options.under.split())
    everything = [mutant for mutant in mutants() if options.only in mutant[0]]
    chosen = list(everything)
    if options.count:
        random.Random(options.seed).shuffle(chosen)
        chosen = chosen[options.skip : options.skip + options.count]
    print(f"{len(everything)} mutants, {len(chosen)} of them drawn with seed {options.seed}", flush=True)
    if options.list:
        for source, number, line, other in chosen:
            print(f"{source}:{number + 1}: {line.strip()} -> {other.strip()}")
        return

    excused = excuses()
    killed = {"too long": 0, "build": 0, "unit": 0, "protocol": 0, "": 0, "excused": 0}
    waiting = queue.SimpleQueue()
    for mutant in enumerate(chosen, 1):
        waiting.put(mutant)
    lock = threading.Lock()

    def work(worker):
        while True:
            try:
                index, (source, number, line, other) = waiting.get_nowait()
            except queue.Empty:
                return
            began = time.monotonic()
            by = worker.try_out(source, number, line, other)
            mutant = (source, line.strip(), other.strip())
            change = f"{source}:{number + 1}\t{line.strip()}\t{other.strip()}"
            with lock:
                if not by and mutant in excused:
                    excused.remove(mutant)
                    by = "excused"
                killed[by] += 1
                print(f"{index:4} {time.monotonic() - began:4.0f} s {by or 'SURVIVED':8} {change}", flush=True)

    workers = [Worker(number) for number in range(options.workers)]
    # What fails anyhow would kill every mutant.
    if failed := workers[0].test(sorted({mutant[0] for mutant in chosen}), 3600):
        sys.exit(f"the unchanged tree fails: {failed}, see {workers[0].log}")
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


main()
