"""Which tests concern a mutant, and what becomes of it when they run: for mutate.py.

Each program with switches notes which of them it came to (switches.py). All tests are run once that way; a mutant is then tried with
those that come to it, and with nothing else.
"""

import hashlib
import json
import os
import queue
import shutil
import subprocess
import threading
import time
from collections import Counter
from pathlib import Path

from mutate_build import UNDER, TooLong, run
from warm import patch

FIRST = 4  # protocol tests to begin with: those that killed mutants of the lines around
QUICK = 0.7  # seconds in which unit tests are worth while before the protocol's
PROTOCOL = "tests/protocol"
BATCH = 40  # tests that are learnt of at a time
FRESH = 200  # so many new mutants are tried with the tests of their neighbours; with more of them all is learnt anew

# A root in which everything can be deleted, and processes of which all can be killed.
JAIL = r"""
mount -t tmpfs none /mnt && mkdir /mnt/upper /mnt/work /mnt/root
mount -t overlay none -o lowerdir=/,upperdir=/mnt/upper,workdir=/mnt/work /mnt/root
mount -t proc none /mnt/root/proc && mount -t tmpfs none /mnt/root/dev && mount -t tmpfs none /mnt/root/tmp
mknod -m 666 /mnt/root/dev/null c 1 3 && mknod -m 666 /mnt/root/dev/zero c 1 5
mknod -m 666 /mnt/root/dev/urandom c 1 9 && mknod -m 666 /mnt/root/dev/full c 1 7 && mkdir -m 1777 /mnt/root/dev/shm
ln -s /proc/self/fd /mnt/root/dev/fd
cd / && exec chroot /mnt/root sh -c "$@"
"""
UNSHARE = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--ipc", "sh", "-ec", JAIL, "sh"]
ALL = 'ulimit -v 8000000; cd "$0"; for test; do "$test" || exit 1; done'
NOTED = ('mkdir -p /opt; head -c "$2" /dev/zero > /opt/reached; chmod 666 /opt/reached; cd "$0"; "$1" > /dev/null 2>&1; code=$?;'
         " cat /opt/reached; exit $code")


class Server:
    """warm.py, which tries protocol tests."""

    def __init__(self, build, number, wanted):
        """`wanted` tells of a path of tests whether they are to be read."""
        self._build, self._number = build, number
        self._files = [str(path.relative_to(build.tree)) for path in sorted((build.tree / PROTOCOL).glob("test_*.py"))
                       if wanted(str(path.relative_to(build.tree)))]
        self._start()

    def _start(self):
        env = os.environ | {"CORV_AGENT": str(self._build.build / "bin/corv-agent"), "CORV_TEST_PATIENCE": "15"}
        env.pop("CORV_AGENT_SHORT", None)
        script = Path(__file__).with_name("warm.py")
        self._log = self._build.where / f"protocol{os.getpid()}-{self._number}.log"
        self._process = subprocess.Popen([*UNDER, "/usr/bin/python3", script, self._build.tree, self._log,
                                          *self._files],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=env,
                                         start_new_session=True)
        self._tests = None

    @property
    def tests(self):
        """All that there are, once it has read them."""
        if self._tests is None:
            self._tests = json.loads(self._process.stdout.readline())["tests"]
        return self._tests

    def ask(self, number, tests, patience, size=0):
        """What comes of the tests; where the process has died, that, and another one is there."""
        assert self.tests
        request = {"number": number, "tests": list(tests), "patience": patience, "size": size}
        self._process.stdin.write(json.dumps(request) + "\n")
        self._process.stdin.flush()
        line = self._process.stdout.readline()
        if line:
            return json.loads(line)
        self.restart()
        return {"failed": "pytest died", "took": {}, "all": [], "seconds": 0}

    def restart(self):
        """Takes what has been built since."""
        self.close()
        self._start()

    def close(self):
        self._process.kill()
        self._process.wait()
        self._log.unlink(missing_ok=True)


class Reach:
    """What each test comes to: name -> (numbers, seconds), kept beside the build."""

    def __init__(self, build):
        self._path = build.where / "reach.json"
        self._build = build
        kept = json.loads(self._path.read_text()) if self._path.exists() else {}
        count = len(build.mutants)
        self._last = kept.get("last", 0)  # the newest that was there when the tests were run
        if not 0 <= count - self._last <= FRESH:
            kept, self._last = {}, count
        self.tests = kept.get("tests", {})
        self._index()

    def here(self, test, source):
        """How many of the source's mutants a test comes to."""
        if test not in self._here:
            there = (self._build.mutants[number - 1] for number in self.tests[test][0])
            self._here[test] = Counter(mutant[0] for mutant in there if mutant)
        return self._here[test][source]

    def _index(self):
        self._here = {}
        self.by_number = {}
        for test, (numbers, *_) in self.tests.items():
            for number in numbers:
                self.by_number.setdefault(number, []).append(test)

    def near(self, number):
        """The number of a mutant that is reached, on the nearest line to one of which it is not known what comes to it."""
        source, at, *_ = self._build.mutants[number - 1]
        lines = {other: self._build.mutants[other - 1][1] for other in self.by_number
                 if self._build.mutants[other - 1] and self._build.mutants[other - 1][0] == source}
        return min(lines, key=lambda other: (abs(lines[other] - at), other), default=number)

    def place(self, number):
        """The number under which the tests are noted that come to a mutant: another's where it is new."""
        return number if number <= self._last else self.near(number)

    def learn_units(self):
        for program in sorted((self._build.build / "bin").glob("test_*")):
            patch(program, 0)
            digest = hashlib.sha256(program.read_bytes()).hexdigest()
            if self.tests.get(program.name, [])[2:] == [digest]:
                continue
            began = time.monotonic()
            done = subprocess.run([*UNDER, *UNSHARE, NOTED, str(self._build.tree / "tests/unit"), str(program), str(self._build.size)],
                                  capture_output=True, check=False)
            if done.returncode != 0:
                print(f"{program.name} fails without a mutant, and is left out", flush=True)
                self.tests.pop(program.name, None)
                continue
            numbers = [number for number, byte in enumerate(done.stdout[-self._build.size :]) if byte and number]
            self.tests[program.name] = [numbers, round(time.monotonic() - began, 2), digest]
        self._keep()

    def learn(self, servers, wanted):
        """Runs the protocol tests of the files that have not been, on all servers at a time."""
        files = {}
        for test in servers[0].tests:
            if wanted(test) and test not in self.tests:
                files.setdefault(test.split("::")[0], []).append(test)
        batches = queue.SimpleQueue()
        for name, tests in sorted(files.items()):
            for at in range(0, len(tests), BATCH):
                batches.put((name, tests[at : at + BATCH]))
        lock = threading.Lock()

        def work(server):
            while True:
                try:
                    name, tests = batches.get_nowait()
                except queue.Empty:
                    return
                told = server.ask(0, tests, 900, self._build.size)
                with lock:
                    for test in tests:
                        passed = test in told.get("took", {}) and test not in told["all"]
                        # What fails anyhow would kill every mutant.
                        self.tests[test] = (told["reach"].get(test, []), round(told["took"][test], 2)) if passed else ([], 0)
                    print(f"{name}: {len(tests)} tests, {told['seconds']} s {told['failed']}", flush=True)
                    self._keep()

        threads = [threading.Thread(target=work, args=(server,)) for server in servers]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def _keep(self):
        self._index()
        self._path.write_text(json.dumps({"last": self._last, "tests": self.tests}))


class Tester:
    """Tries mutants of a build."""

    def __init__(self, build, server, reach, number=0):
        self.build, self.server, self.reach = build, server, reach
        # Runs beside one another have their own.
        self._programs = build.where / f"programs{os.getpid()}-{number}"
        self.log = build.where / f"log{os.getpid()}-{number}"
        self.failed = ""
        self.left = 0

    def close(self):
        """Leaves nothing behind."""
        self.server.close()
        shutil.rmtree(self._programs, ignore_errors=True)
        self.log.unlink(missing_ok=True)

    def _units(self, number, names):
        self._programs.mkdir(exist_ok=True)
        programs = [self._programs / name for name in names]
        for name, program in zip(names, programs):
            shutil.copy(self.build.build / "bin" / name, program)
            patch(program, number)
        try:
            argv = [*UNSHARE, ALL, str(self.build.tree / "tests/unit"), *map(str, programs)]
            self.log.write_bytes(b"")
            return not run(argv, self.log, 30 + 5 * sum(self.reach.tests[name][1] for name in names))
        except TooLong:
            return True

    def _protocol(self, number, tests):
        seconds = sum(self.reach.tests[test][1] for test in tests)
        self.failed = self.server.ask(number, tests, 30 + 4 * seconds)["failed"]
        return bool(self.failed)

    def test(self, number, killers, kills, budget, place):
        """What kills the mutant: "unit", "protocol", "too long" or nothing. `killers` are protocol tests to begin with where they come to
        it, `kills` how many mutants each test killed; no more tests are tried than take `budget` seconds, and `left` says how many
        were not. `place` is the number that the tests are looked up by."""
        self.failed, self.left = "", 0
        every = self.reach.by_number.get(place, [])
        units = sorted((test for test in every if not test.startswith(PROTOCOL)), key=lambda test: self.reach.tests[test][1])
        quick, spent = [], 0
        for unit in units:
            spent += self.reach.tests[unit][1]
            if spent <= QUICK:
                quick.append(unit)
        if quick and self._units(number, quick):
            return "unit"
        protocol = {test for test in every if test.startswith(PROTOCOL)}
        first = [test for test in dict.fromkeys(killers) if test in protocol][:FIRST]
        if first and self._protocol(number, first):
            return self._protocol_end()
        rest = self._in_order(protocol - set(first), self.build.mutants[number - 1][0], kills)
        slow = [unit for unit in units if unit not in quick]
        for batch in self._within(rest, slow, budget):
            if batch[0].startswith(PROTOCOL):
                if self._protocol(number, batch):
                    return self._protocol_end()
            elif self._units(number, batch):
                return "unit"
        return ""

    def _in_order(self, tests, source, kills):
        """The likeliest to look at the source first: by turns one that killed much, one that comes to much of it, one that comes
        to little else."""
        seconds = lambda test: max(0.2, self.reach.tests[test][1])  # noqa: E731
        deadly = sorted(tests, key=lambda test: -kills[test] / seconds(test))
        much = sorted(tests, key=lambda test: (-self.reach.here(test, source), seconds(test)))
        little = sorted(tests, key=lambda test: seconds(test) * len(self.reach.tests[test][0]) / (1 + self.reach.here(test, source)))
        return list(dict.fromkeys(test for some in zip(deadly, much, little) for test in some))

    def _protocol_end(self):
        return "too long" if self.failed == "too long" else "protocol"

    def _within(self, rest, slow, budget):
        """The tests in batches, each of one kind, as long as the budget lasts."""
        taken, spent = [], 0
        for test in [*slow, *rest]:
            seconds = self.reach.tests[test][1]
            if spent + seconds <= budget:
                taken.append(test)
                spent += seconds
            else:
                self.left += 1
        protocol = [test for test in taken if test.startswith(PROTOCOL)]
        return [protocol[at : at + 12] for at in range(0, len(protocol), 12)] + [[unit] for unit in taken if unit in slow]
