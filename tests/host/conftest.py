"""One host for the whole run, with the package installed; tests keep out of each other's way by accounts of their own."""

import os
import pathlib

import booted
import pytest
from booted import (  # noqa: F401 (pytest finds them here)
    account,
    boot,
    host,
    hosts_of_one_module,
    package,
    pytest_runtest_makereport,
    running_host,
    time_limit,
)

HERE = pathlib.Path(__file__).parent
SHARE = 12


def pytest_addoption(parser):
    parser.addoption("--long", action="store_true", help="also what takes minutes each: an upgrade of Debian, and what the marker names")


def pytest_configure(config):
    if os.geteuid() != 0:
        raise pytest.UsageError("the host floor boots hosts: run it as root")
    config.addinivalue_line("markers", "core: tried in every run on every release, with -m core; others on Debian 12 alone, when their turn comes")
    config.addinivalue_line("markers", "each: tried in every run, on Debian 12 alone")
    config.addinivalue_line("markers", "turn: of the core, and takes so long that it waits for its file's turn on both releases")
    config.addinivalue_line("markers", "long: tried with --long alone, since others show most of the same in less time")


def turn():
    """The files whose turn it is with the commit that is checked out: one in SHARE, others with the next commit."""
    return booted.turn_of((path.name for path in HERE.glob("test_*.py")), SHARE)


def pytest_terminal_summary(terminalreporter, config):
    booted.pytest_terminal_summary(terminalreporter)
    if booted.is_whole(config, HERE) and not config.getoption("--long"):
        terminalreporter.write_line(f"beside the core: {' '.join(turn())}")


def pytest_collection_modifyitems(config, items):
    if config.getoption("--long"):
        return
    files = turn() if booted.is_whole(config, HERE) else None
    late = [item for item in items if item.get_closest_marker("long")
            or files is not None and item.path.name not in files
            and (item.get_closest_marker("turn") or not (item.get_closest_marker("core") or item.get_closest_marker("each")))]
    config.hook.pytest_deselected(items=late)
    items[:] = [item for item in items if item not in late]
