"""Tries tests on a mutant without starting anew: a process that has read the protocol tests and made their ground, and is forked for each.

Run by mutate.py with the tree, a log and the tests' files: each line of its input is {"number": which mutant, "tests": [...], "patience":
seconds}, each of its output what came of it: {"failed": the test, "seconds": ...}, with "too long" as the test where the time was over.
With "size", how many switches there are, the answer also tells for each test which of them it asked for, how long it took, and all that
failed. The first line names all tests.
"""

import contextlib
import gc
import json
import os
import re
import shutil
import signal
import sys
import time
from pathlib import Path

import pytest

from switches import MARK

REACHED = "opt/reached"  # below a sandbox's root


def plain(test):
    """A test's name as it was when it was first read: pytest escapes the backslashes in it once more each time."""
    return re.sub(r"\\+", r"\\", test)


class Notes:
    """What a run of pytest tells: the first failure; where it is asked for, how long each test took and which switches it asked for."""

    def __init__(self, tests, size):
        self.order = {plain(test): at for at, test in enumerate(tests)}
        self._asked = {plain(test): test for test in tests}
        self.failed = ""
        self.all = []
        self.size = size
        self.reach = {}
        self.took = {}
        self._now = None

    def pytest_collection_modifyitems(self, items):
        items[:] = sorted((item for item in items if plain(item.nodeid) in self.order),
                          key=lambda item: self.order[plain(item.nodeid)])

    def pytest_runtest_logstart(self, nodeid):
        self._now = self._name(nodeid)

    def _name(self, nodeid):
        return self._asked.get(plain(nodeid), nodeid)

    def pytest_runtest_logreport(self, report):
        test = self._name(report.nodeid)
        self.took[test] = self.took.get(test, 0) + report.duration
        if report.failed:
            self.all.append(test)
            self.failed = self.failed or test

    def pytest_collectreport(self, report):
        if report.failed and not self.failed:
            self.failed = report.nodeid or "collection"

    def finished(self, box):
        """Takes note of what a sandbox's programs asked for."""
        path = box.root / REACHED
        if self.size and path.exists():
            data = path.read_bytes()
            self.reach.setdefault(self._now, set()).update(number for number, byte in enumerate(data) if byte)


class Collected:
    """The tests that there are."""

    def __init__(self):
        self.tests = []

    def pytest_collection_finish(self, session):
        self.tests = [item.nodeid for item in session.items]


_places = {}


def patch(path, number):
    """Chooses the mutant in a program's file, which nothing else changes meanwhile."""
    if path not in _places:
        _places[path] = path.read_bytes().find(MARK)
    at = _places[path]
    if at >= 0:
        with path.open("r+b") as file:
            file.seek(at + len(MARK))
            file.write(number.to_bytes(4, "little"))


def prepared(tree, files):
    """The ground that all share, with every program of the build in it; and pytest with the files of tests imported."""
    os.chdir(tree)
    sys.path.insert(0, str(tree / "tests/protocol"))
    known = Collected()
    with contextlib.redirect_stdout(sys.stderr):
        pytest.main(["-q", "--collect-only", "-p", "no:cacheprovider", *files], plugins=[known])
    import ground
    import sandbox

    common = ground.Ground()
    for program in ground.agent_executable().parent.iterdir():
        if program.name.startswith("corv") and program.is_file():
            common.agent(program.resolve())
    common.close = lambda: None
    ground.Ground = lambda: common
    # What is there already is not looked through again in each child.
    gc.collect()
    gc.freeze()
    return common, sandbox, known.tests


def attempt(common, sandbox, request, log):
    """In a child: runs the tests and returns what is told of them."""
    notes = Notes(request["tests"], request.get("size", 0))
    ground_module = sys.modules["ground"]
    # Mounts end with this process.
    ground_module._libc.unshare(ground_module._CLONE_NEWNS)
    common.numbers = iter(range(request["number"] * 100_000 + 1, 2**31))
    close = sandbox.Sandbox.close

    def noted_close(box):
        notes.finished(box)
        close(box)

    if notes.size:
        sandbox.Sandbox.close = noted_close
        path = common.layer / REACHED
        path.write_bytes(bytes(notes.size))
        path.chmod(0o666)
    os.dup2(log, 1)
    os.dup2(log, 2)
    stop = [] if notes.size else ["-x"]
    # A backslash in a test's name does not come through the command line: its file is read instead.
    wanted = dict.fromkeys(test.split("::")[0] if "\\" in test else test for test in request["tests"])
    code = pytest.main(["-q", *stop, "-p", "no:cacheprovider", "--tb=short", *wanted], plugins=[notes])
    if code not in (0, 1) and not notes.failed:
        notes.failed = f"pytest ended with {int(code)}"
    answer = {"failed": notes.failed}
    if notes.size:
        answer["reach"] = {test: sorted(found) for test, found in notes.reach.items()}
        answer["took"] = notes.took
        answer["all"] = notes.all
    return answer


def serve(tree, log_path, files):
    common, sandbox, tests = prepared(tree, files)
    known = {path.name for path in common.base.iterdir()}
    print(json.dumps({"tests": tests}), flush=True)
    for line in sys.stdin:
        request = json.loads(line)
        began = time.monotonic()
        for program in common.agents.values():
            patch(program, request["number"])
        reading, writing = os.pipe()
        child = os.fork()
        if child == 0:
            code = 1
            try:
                os.setsid()
                os.close(reading)
                log = os.open(log_path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
                answer = attempt(common, sandbox, request, log)
                with os.fdopen(writing, "w") as file:
                    json.dump(answer, file)
                code = 0
            finally:
                os._exit(code)
        os.close(writing)
        told = answer_of(reading, child, request["patience"])
        told["seconds"] = round(time.monotonic() - began, 2)
        for path in common.base.iterdir():
            if path.name not in known:
                shutil.rmtree(path, ignore_errors=True)
        print(json.dumps(told), flush=True)


def answer_of(reading, child, patience):
    """What the child tells, before the time is over. It has ended with all that it started then."""
    def late(*_):
        raise TimeoutError

    signal.signal(signal.SIGALRM, late)
    signal.setitimer(signal.ITIMER_REAL, patience)
    try:
        with os.fdopen(reading) as file:
            text = file.read()
        told = json.loads(text) if text else {"failed": "pytest died"}
    except TimeoutError:
        told = {"failed": "too long"}
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        with contextlib.suppress(ProcessLookupError):
            os.killpg(child, signal.SIGKILL)
        os.waitpid(child, 0)
    return told


if __name__ == "__main__":
    serve(Path(sys.argv[1]), sys.argv[2], sys.argv[3:])
