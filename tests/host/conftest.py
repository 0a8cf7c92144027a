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
    parser.addoption("--long", action="store_true", help="also an upgrade of Debian, out of its archive: takes some minutes")


def pytest_configure(config):
    if os.geteuid() != 0:
        raise pytest.UsageError("the host floor boots hosts: run it as root")
    config.addinivalue_line("markers", "core: tried on every release, with -m core; all others on Debian 12 alone")
