"""One virtual machine for the whole run, with the package installed. It is slow, and what takes it long is shared:
tests build on what those before them have left, and still run alone."""

import os

import pytest
from machinefloor import HostError, Machine  # isort: skip (adds the folder of what follows)
from booted import package, pytest_runtest_makereport, pytest_terminal_summary, servers  # noqa: F401 (pytest finds them here)


def pytest_configure(config):
    if os.geteuid() != 0:
        raise pytest.UsageError("the machine floor boots machines: run it as root")


def pytest_collection_modifyitems(items):
    # The first see the machine before its quotas are on, the last set its clock; nothing takes either back.
    order = {"test_quota.py": 0, "test_backup_timer.py": 2}
    items.sort(key=lambda item: order.get(item.path.name, 1))


@pytest.fixture(scope="session")
def machine(package):
    """The machine of the run."""
    try:
        booted = Machine(f"test-{os.getpid()}")
        servers.append(booted)
        booted.install(package)
        yield booted
    except HostError as error:
        pytest.exit(f"the machine is not ready: {error}", 1)
    finally:
        for booted in servers:
            booted.stop()


@pytest.fixture(scope="session")
def quotas(machine):
    """The machine, with quotas switched on by now."""
    machine.ok(["corvctl", "quota", "enable"])
    return machine


@pytest.fixture(scope="session")
def tenant(machine):
    """An account for tests that leave its home as they found it; its limit may be any."""
    return machine.account()
