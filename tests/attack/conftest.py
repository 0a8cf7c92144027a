"""Attempts of one who wants more than is his, on one host for the whole run. With --unguarded what stops them is switched off, and
an attempt fails that gets nothing then: it would prove nothing."""

import os
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "host"))

from booted import (  # noqa: E402, F401 (pytest finds them here)
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
    parser.addoption("--unguarded", action="store_true", help="switch off what stops the attempts, and see that they get through")


def pytest_configure(config):
    if os.geteuid() != 0:
        raise pytest.UsageError("the attack floor boots hosts: run it as root")
    config.addinivalue_line("markers", "core: tried on every release, with -m core; all others on Debian 12 alone")
    config.addinivalue_line("markers", "long: of the host floor, whose helpers are used here")


@pytest.fixture(scope="session")
def guarded(request):
    """Whether the attempts are to be stopped."""
    return not request.config.getoption("--unguarded")
