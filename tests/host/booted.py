"""What the floors with booted servers share: the package under test, and what a report says of the servers."""

import os
import pathlib
import subprocess

import pytest
from hostfloor import ROOT, Host

# The Debian release that the servers run.
SUITE = os.environ.get("CORV_SUITE", "bookworm")

# All that were booted in this run, also those that have ended.
servers = []


@pytest.fixture(scope="session")
def package():
    """The path of the package under test: built from this tree on the release that it is for, or the one that CORV_PACKAGE names."""
    if os.environ.get("CORV_PACKAGE"):
        return pathlib.Path(os.environ["CORV_PACKAGE"])
    scripts = ROOT / "scripts"
    built = subprocess.run([scripts / "release", SUITE, scripts / "package"], stdout=subprocess.PIPE, text=True, check=False)
    if built.returncode != 0:
        pytest.exit("scripts/package failed", 1)
    return pathlib.Path(built.stdout.splitlines()[-1])


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Shows the agent's journal with each failure."""
    outcome = yield
    server = next((value for value in getattr(item, "funcargs", {}).values() if isinstance(value, Host)), None)
    if call.when == "call" and call.excinfo is not None and server is not None:
        lines = server.journal("corv-agent").splitlines()[-30:]
        outcome.get_result().sections.append(("the agent's journal", "\n".join(lines)))


def pytest_terminal_summary(terminalreporter):
    for server in servers:
        terminalreporter.write_line(f"{server.name}: booted in {server.boot_seconds:.1f} s, package installed in "
                                    f"{server.install_seconds:.1f} s")
