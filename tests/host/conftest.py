"""One host for the whole run, with the package installed; tests keep out of each other's way by accounts of their own."""

import os

import pytest
from booted import (  # noqa: F401 (pytest finds them here)
    account,
    boot,
    host,
    hosts_of_one_module,
    package,
    pytest_runtest_makereport,
    pytest_terminal_summary,
    running_host,
    time_limit,
)


def pytest_addoption(parser):
    parser.addoption("--long", action="store_true", help="also what takes minutes each: an upgrade of Debian, and what the marker names")


def pytest_configure(config):
    if os.geteuid() != 0:
        raise pytest.UsageError("the host floor boots hosts: run it as root")
    config.addinivalue_line("markers", "core: tried on every release, with -m core; all others on Debian 12 alone")
    config.addinivalue_line("markers", "long: tried with --long alone, since others show most of the same in less time")


def pytest_collection_modifyitems(config, items):
    if config.getoption("--long"):
        return
    late = [item for item in items if item.get_closest_marker("long")]
    config.hook.pytest_deselected(items=late)
    items[:] = [item for item in items if item not in late]
