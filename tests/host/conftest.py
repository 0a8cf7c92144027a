"""One host for the whole run, with the package installed; tests keep out of each other's way by accounts of their own."""

import os
import signal

import pytest
from booted import SUITE, package, pytest_runtest_makereport, pytest_terminal_summary, servers  # noqa: F401 (pytest finds them here)
from hostfloor import Host, HostError

# Seconds for the body of one test; a module whose tools take their time has a LIMIT of its own.
LIMIT = 120


def pytest_configure(config):
    if os.geteuid() != 0:
        raise pytest.UsageError("the host floor boots hosts: run it as root")
    config.addinivalue_line("markers", "core: tried on every release, with -m core; all others on Debian 12 alone")


@pytest.fixture(scope="session")
def boot(package):
    """Boots further hosts: boot() has the package installed, boot(bare=True) has not. They stop at the end of the run, or
    by their stop(). CORV_SUITE names their Debian release."""

    def boot_host(*, bare=False):
        host = Host(f"test-{os.getpid()}-{len(servers) + 1}", SUITE)
        servers.append(host)
        if not bare:
            host.install(package)
        return host

    yield boot_host
    for host in servers:
        host.stop()


@pytest.fixture(scope="session")
def running_host(boot):
    try:
        return boot()
    except HostError as error:
        pytest.exit(f"the host is not ready: {error}", 1)


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
