"""Every system call with which the agent writes a file fails; every folder that it writes to is full."""

import pytest

from disk import ERRORS, FULL, failing_call, full_disk, full_folders, spots
from figures import count
from scenarios import BY_NAME, SCENARIOS

PROMISE = "one reply; a settings file is the old one or the new one; the account is there, gone, or as documented; no \
temporary file is left; once there is room the request can be repeated"
NAMES = {"openat": "open", "renameat2": "rename", "mkdirat": "mkdir", "fchmodat": "chmod"}
# Without --long one call in so many fails.
SHARE = 2
WRITERS = [scenario for scenario in SCENARIOS if scenario.changes]


def test_the_files_that_the_agent_writes_are_found(ground):
    create = {(spot.call, spot.path.rpartition("/")[2]) for spot in spots(ground, BY_NAME["hosting.create"])}
    assert {("openat", "corv-alice.conf"), ("write", "corv-alice.conf"), ("write", "index.html")} <= create
    fstab = {(spot.call, spot.path) for spot in spots(ground, BY_NAME["quota.enable"])}
    assert {(call, "/etc/.fstab.XXXXXX") for call in ("openat", "write", "fchown", "fchmod", "fsync")} <= fstab


@pytest.mark.parametrize("scenario", WRITERS, ids=lambda scenario: scenario.name)
def test_system_call_that_fails(ground, some, scenario):
    targets = some(spots(ground, scenario), SHARE, WRITERS.index(scenario))
    found = [failing_call(ground, scenario, spot) for spot in targets]
    for spot, wrong in zip(targets, found):
        count(f"a file's {NAMES.get(spot.call, spot.call)} fails ({ERRORS[spot.call]})", PROMISE, 1, int(not wrong))
    assert not any(found), "\n".join(f"{spot}: {wrong}" for spot, wrong in zip(targets, found) if wrong)


@pytest.mark.parametrize("kind", FULL)
@pytest.mark.parametrize("scenario", WRITERS, ids=lambda scenario: scenario.name)
def test_full_disk(ground, scenario, kind):
    folders = full_folders(ground, scenario)
    found = [full_disk(ground, scenario, folder, kind) for folder in folders]
    count(f"there is {kind} in a folder that is written to", PROMISE, len(found), sum(not wrong for wrong in found))
    assert not any(found), "\n".join(f"{folder}: {wrong}" for folder, wrong in zip(folders, found) if wrong)
