"""What the floors with booted servers share: the package under test, what a report says of the servers, and, for those whose
servers are hosts, the host of the run."""

import os
import pathlib
import signal
import subprocess

import pytest
from hostfloor import ROOT, Host, HostError, packages_of

# Seconds for the body of one test; a module whose tools take their time has a LIMIT of its own.
LIMIT = 120

# The Debian release that the servers run.
SUITE = os.environ.get("CORV_SUITE", "bookworm")

# All that were booted in this run, also those that have ended; and the one that all modules use.
servers = []
shared = {}


def turn_of(names, share):
    """Of names those whose turn it is with the commit that is checked out: one in share, others with the next commit."""
    commit = subprocess.run(["git", "rev-parse", "HEAD"], cwd=ROOT, capture_output=True, text=True, check=False).stdout.strip()
    return sorted(names)[int(commit or "0", 16) % share::share]


def is_whole(config, folder):
    """Whether the whole floor in the folder was asked for, and not some files of it."""
    return [pathlib.Path(argument).resolve() for argument in config.args] == [folder]


def package_of(suite):
    """The path of the package, built from this tree on the release that it is for."""
    scripts = ROOT / "scripts"
    built = subprocess.run([scripts / "release", suite, scripts / "package"], stdout=subprocess.PIPE, text=True, check=False)
    if built.returncode != 0:
        pytest.exit("scripts/package failed", 1)
    return pathlib.Path(built.stdout.splitlines()[-1])


@pytest.fixture(scope="session")
def package():
    """The path of the package under test: as package_of, or the one that CORV_PACKAGE names."""
    return pathlib.Path(os.environ["CORV_PACKAGE"]) if os.environ.get("CORV_PACKAGE") else package_of(SUITE)


@pytest.fixture(scope="session")
def boot(package):
    """Boots further hosts: boot() has the package installed, boot(https=True) the one for HTTPS too, boot(bare=True) none. They stop at
    the end of the module that asked for them, or by their stop(). CORV_SUITE names their Debian release where the test does not."""

    def boot_host(*, bare=False, https=False, suite=SUITE):
        packages = () if bare else packages_of(package if suite == SUITE else package_of(suite), https=https)
        host = Host(f"test-{os.getpid()}-{len(servers) + 1}", suite, packages)
        servers.append(host)
        return host

    yield boot_host
    for host in servers:
        host.stop()


@pytest.fixture(scope="module", autouse=True)
def hosts_of_one_module(request):
    """Twenty hosts side by side use up what the kernel gives one user to watch files with, and the next one does not boot."""
    before = len(servers)
    yield
    for host in servers[before:]:
        if host is not shared.get("host"):
            host.stop()


@pytest.fixture(scope="session")
def running_host(boot):
    try:
        shared["host"] = boot()
    except HostError as error:
        pytest.exit(f"the host is not ready: {error}", 1)
    return shared["host"]


@pytest.fixture(autouse=True)
def time_limit(request):
    """A request that is never answered fails its test instead of holding up the run; no test needs anything like it."""
    limit = getattr(request.module, "LIMIT", LIMIT)

    def give_up(number, frame):
        raise HostError(f"the test took longer than {limit} s")

    before = signal.signal(signal.SIGALRM, give_up)
    signal.alarm(limit)
    yield
    signal.alarm(0)
    signal.signal(signal.SIGALRM, before)


@pytest.fixture
def host(running_host):
    """The host of the run. What the test makes through host.account() and host.free_name() is gone after it."""
    yield running_host
    running_host.remove_accounts()


@pytest.fixture
def account(host):
    """One fresh account on the host of the run."""
    return host.account()


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
        installed = f", package installed in {server.install_seconds:.1f} s" if server.install_seconds else ""
        terminalreporter.write_line(f"{server.name}: booted in {server.boot_seconds:.1f} s{installed}")
