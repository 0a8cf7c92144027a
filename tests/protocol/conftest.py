from pathlib import Path

import pytest

import described
from fixtures import ground, impatient, sandbox  # noqa: F401

# What the description of the protocol has been proven by, in a process of the run; whether that ran all tests.
SELECTED = pytest.StashKey()
RUNS = pytest.StashKey()
UNPROVEN = pytest.StashKey()


# A run of all tests ends with what they have not shown of the protocol's description; a run of some cannot tell.


def pytest_configure(config):
    config.stash[SELECTED] = False
    config.stash[RUNS] = []
    config.stash[UNPROVEN] = []


def pytest_deselected(items):
    if items:
        items[0].config.stash[SELECTED] = True


def pytest_collection_finish(session):
    files = set(Path(__file__).parent.glob("test_*.py"))
    if files - {item.path for item in session.items} or any("::" in arg for arg in session.config.args):
        session.config.stash[SELECTED] = True


@pytest.hookimpl(optionalhook=True)
def pytest_testnodedown(node, error):
    output = getattr(node, "workeroutput", {})
    node.config.stash[RUNS].append((output.get("whole", False), output.get("seen", [])))


def pytest_sessionfinish(session, exitstatus):
    config = session.config
    if hasattr(config, "workeroutput"):  # a worker of pytest-xdist: the process that started it sees them all
        config.workeroutput.update(whole=not config.stash[SELECTED], seen=sorted(described.seen))
        return
    runs = config.stash[RUNS] or [(not config.stash[SELECTED], described.seen)]
    if exitstatus not in (pytest.ExitCode.OK, pytest.ExitCode.TESTS_FAILED) or session.shouldstop or session.shouldfail:
        return
    if not all(whole for whole, _ in runs):
        return
    config.stash[UNPROVEN] = described.unproven(set().union(*(seen for _, seen in runs)))
    if config.stash[UNPROVEN]:
        session.exitstatus = pytest.ExitCode.TESTS_FAILED


def pytest_terminal_summary(terminalreporter, config):
    if config.stash[UNPROVEN]:
        terminalreporter.section("the protocol's description", red=True)
        for line in config.stash[UNPROVEN]:
            terminalreporter.line(line)
