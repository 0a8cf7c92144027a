"""What the tests of the hostile floor share: the sandboxes of the protocol floor, and the figures that a run ends with."""

import os
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "protocol"))

from fixtures import ground, sandbox  # noqa: E402, F401
from figures import FIGURES, table  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--long", action="store_true", help="every case, and ten minutes of load: takes hours")


def pytest_configure(config):
    if not hasattr(config, "workerinput"):
        FIGURES.parent.mkdir(parents=True, exist_ok=True)
        if "CORV_HOSTILE_FIGURES" not in os.environ:  # where it is given, several runs write there
            FIGURES.unlink(missing_ok=True)


@pytest.fixture(scope="session")
def is_long(pytestconfig):
    """Whether there is time for everything."""
    return pytestconfig.getoption("--long")


@pytest.fixture(scope="session")
def some(is_long):
    """some(cases, share, turn): the cases that there is time for. All with --long, else one in share, others at each turn."""
    return lambda cases, share, turn: [case for i, case in enumerate(cases) if is_long or (turn + i) % share == 0]


def pytest_terminal_summary(terminalreporter, config):
    if FIGURES.exists():
        terminalreporter.section("what happens when")
        terminalreporter.write(table(FIGURES.read_text()))
