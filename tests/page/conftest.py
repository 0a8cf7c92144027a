"""The page in a real browser, in real Cockpit, on one booted host with the real agent; one login for the whole run."""

import hashlib
import json
import os
import pathlib
import subprocess
import sys
import tarfile
import tempfile
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "host"))

from booted import (  # noqa: E402, F401 (pytest finds them here)
    SUITE,
    boot,
    package,
    pytest_runtest_makereport,
    pytest_terminal_summary,
    running_host,
    time_limit,
)
from cockpit import OVERVIEW, Cockpit  # noqa: E402
from hostfloor import CACHE  # noqa: E402

# Screenshots, also of what failed.
RESULTS = pathlib.Path(os.environ.get("CORV_PAGE_RESULTS", CACHE / f"page-{SUITE}"))
PASSWORD = "Foobar-123"
# The examiner of accessibility: of the tests alone, and never in the package.
AXE = ("axe-core-4.14.1.tgz", "e6b0ce02b84d892e2e33e403485e7f3d6c29e2be6df65daf44d89ba564139745")


def pytest_configure(config):
    if os.geteuid() != 0:
        raise pytest.UsageError("the page floor boots hosts: run it as root")
    RESULTS.mkdir(parents=True, exist_ok=True)


@pytest.fixture(scope="session")
def axe():
    """The source of axe-core, fetched once by npm and known by its hash."""
    name, expected = AXE
    path = CACHE / name
    if not path.exists():
        # Both releases are tried side by side.
        with tempfile.TemporaryDirectory(dir=CACHE) as folder:
            subprocess.run(["npm", "pack", "--silent", "--pack-destination", folder, "axe-core@4.14.1"], check=True, stdout=subprocess.DEVNULL)
            os.replace(pathlib.Path(folder) / name, path)
    assert hashlib.sha256(path.read_bytes()).hexdigest() == expected
    with tarfile.open(path) as archive:
        return archive.extractfile("package/axe.min.js").read().decode()


@contextmanager
def client_that_says(server, reply, to="*"):
    """The client replaced by a program that prints a prepared reply; only to a command that is named, such as "--json https list"."""
    server.put("/run/reply.json", json.dumps(reply))
    server.ok(["mv", "/usr/bin/corvctl", "/usr/bin/corvctl.real"])
    pattern = to if to == "*" else f'"{to}"'
    try:
        server.put("/usr/bin/corvctl", f'#!/bin/sh\ncase "$*" in {pattern}) exec cat /run/reply.json;; esac\nexec /usr/bin/corvctl.real "$@"\n', mode="0755")
        yield
    finally:
        server.ok(["mv", "/usr/bin/corvctl.real", "/usr/bin/corvctl"])


@pytest.fixture(scope="session")
def server(running_host, package):
    """The host, with Cockpit, the page, an administrator `boss`, a user `clerk` without rights, and three accounts."""
    host = running_host
    pages = sorted(package.parent.glob("cockpit-corvane_*.deb"))
    assert len(pages) == 1, "the package of the page was not built beside the agent's"
    https = sorted(package.parent.glob("corv-https_*.deb"))
    assert len(https) == 1, "the package for HTTPS was not built beside the agent's"
    # Also what tests of single actions need and the agent does not install by itself: apt takes its time for each run.
    host.ok(["apt-get", "-q", "install", "--yes", "--no-install-recommends", "sudo", "cockpit-ws", "cockpit-bridge", "cockpit-system",
             "restic", "unattended-upgrades", host._copy(pages[0]), host._copy(https[0])], env={"DEBIAN_FRONTEND": "noninteractive"}, timeout=300)
    for user, groups in (("boss", ["-G", "sudo"]), ("clerk", [])):
        host.ok(["useradd", "-m", "-s", "/bin/bash", *groups, user])
        host.ok(["chpasswd"], input=f"{user}:{PASSWORD}")
    host.ok(["systemctl", "start", "cockpit.socket"])
    # The first login of a server takes longest, and is no measure of any page: it is had while the accounts are made.
    with ThreadPoolExecutor() as beside:
        login = beside.submit(host.outside, ["curl", "-ksS", "-o", "/dev/null", "-w", "%{http_code}", "-u", f"boss:{PASSWORD}",
                                             "https://10.213.0.2:9090/cockpit/login"])
        for name in ("shop", "alice", "bob"):
            assert host.request("hosting.create", username=name, domain=f"{name}.example.org")["ok"]
    assert login.result().out == "200"
    assert host.request("hosting.suspend", username="bob")["ok"]
    return host


@pytest.fixture(scope="session")
def browser(server):
    """A browser in which boss is logged in with administrative access, on the overview; `took` tells how long that was."""
    one = Cockpit(prefix=server._visiting())
    one.login("boss", PASSWORD)
    one.took = one.seconds_to(OVERVIEW)
    yield one
    one.close()


@pytest.fixture
def page(browser, request):
    """The browser for one test; what was logged as an error in the course of it fails the test."""
    browser.events.clear()
    browser.forget_frames()
    yield browser
    outcome = getattr(request.node, "outcome", None)
    if outcome is not None and outcome.failed:
        browser.screenshot(RESULTS / f"failed-{request.node.name}.png")
        browser.leave_dialog()
    assert browser.complaints() == []


@pytest.hookimpl(hookwrapper=True, tryfirst=True)
def pytest_runtest_protocol(item, nextitem):
    item.outcome = None
    yield


@pytest.hookimpl(hookwrapper=True)
def pytest_exception_interact(node, call, report):
    node.outcome = report
    yield
