"""One virtual machine for the whole run, with the package installed. It is slow, and what takes it long is shared:
tests build on what those before them have left, and still run alone."""

import os
import pathlib
import subprocess

import pytest
from machinefloor import ROOT, HostError, Machine

_machines = []


def pytest_configure(config):
    if os.geteuid() != 0:
        raise pytest.UsageError("the machine floor boots machines: run it as root")


def pytest_collection_modifyitems(items):
    # The first see the machine before its quotas are on, the last set its clock; nothing takes either back.
    order = {"test_quota.py": 0, "test_backup_timer.py": 2}
    items.sort(key=lambda item: order.get(item.path.name, 1))


@pytest.fixture(scope="session")
def package():
    """The path of the package under test: built from this tree, or the one that CORV_PACKAGE names."""
    if os.environ.get("CORV_PACKAGE"):
        return pathlib.Path(os.environ["CORV_PACKAGE"])
    built = subprocess.run([ROOT / "scripts" / "package"], stdout=subprocess.PIPE, text=True, check=False)
    if built.returncode != 0:
        pytest.exit("scripts/package failed", 1)
    return pathlib.Path(built.stdout.splitlines()[-1])


@pytest.fixture(scope="session")
def machine(package):
    """The machine of the run."""
    try:
        booted = Machine(f"test-{os.getpid()}")
        _machines.append(booted)
        booted.install(package)
        yield booted
    except HostError as error:
        pytest.exit(f"the machine is not ready: {error}", 1)
    finally:
        for booted in _machines:
            booted.stop()


@pytest.fixture(scope="session")
def quotas(machine):
    """The machine, with quotas switched on by now."""
    assert machine.request("quota.enable")["ok"] is True
    return machine


@pytest.fixture(scope="session")
def tenant(machine):
    """An account for tests that leave its home as they found it; its limit may be any."""
    return machine.account()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    machine = item.funcargs.get("machine") if hasattr(item, "funcargs") else None
    if call.when == "call" and call.excinfo is not None and machine is not None:
        lines = machine.journal("corv-agent").splitlines()[-30:]
        outcome.get_result().sections.append(("the agent's journal", "\n".join(lines)))


def pytest_terminal_summary(terminalreporter):
    for machine in _machines:
        terminalreporter.write_line(f"{machine.name}: booted in {machine.boot_seconds:.1f} s, package installed in "
                                    f"{machine.install_seconds:.1f} s")
