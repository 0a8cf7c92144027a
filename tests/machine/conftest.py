"""One virtual machine for the whole run, with the package installed. It is slow, and what takes it long is shared:
tests build on what those before them have left, and still run alone."""

import os
import pathlib

import pytest
from machinefloor import HostError, Machine  # isort: skip (adds the folder of what follows)
from booted import (  # noqa: F401 (pytest finds some of them here)
    is_whole,
    package,
    pytest_runtest_makereport,
    pytest_terminal_summary,
    servers,
    turn_of,
)

SHARE = 5


def pytest_addoption(parser):
    parser.addoption("--long", action="store_true", help="also what waits for its turn")


def pytest_configure(config):
    if os.geteuid() != 0:
        raise pytest.UsageError("the machine floor boots machines: run it as root")
    config.addinivalue_line("markers", f"turn: takes minutes on an emulated processor; a run of the floor tries one in {SHARE} of them, --long all")


def pytest_collection_modifyitems(config, items):
    late = {item.name: item for item in items if item.get_closest_marker("turn")}
    if is_whole(config, pathlib.Path(__file__).parent) and not config.getoption("--long"):
        for name in turn_of(late, SHARE):
            late.pop(name)
        config.hook.pytest_deselected(items=list(late.values()))
        items[:] = [item for item in items if item not in late.values()]
    # The first see the machine before its quotas are on, the last set its clock; nothing takes either back.
    order = {"test_quota.py": 0, "test_backup_timer.py": 2}
    items.sort(key=lambda item: order.get(item.path.name, 1))


@pytest.fixture(scope="session")
def machine(package):
    """The machine of the run."""
    try:
        booted = Machine(f"test-{os.getpid()}", package)
        servers.append(booted)
        booted.wait_for_unit("corv-agent")
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
