"""What a start of the server does for accounts that a move has left off-line, and who hears of it where it cannot."""

import pytest

LIMIT = 240
UNIT = "corv-move.service"
MOVES = "/var/lib/corvane/moves"
KEPT = f"/var/lib/corvane/failures/{UNIT}"
# In front of the real ones for the unit alone, which has this folder first.
BUSY = "#!/bin/sh\nprintf '%s\\n' \"$*\" >>/run/corvane/resumed\nexit 1\n"
PAUSE = "#!/bin/sh\nprintf '%s\\n' \"$*\" >>/run/corvane/paused\n"
TELLING = f"corv-notify@{UNIT}.service"


@pytest.fixture(scope="module")
def host(boot):
    host = boot()
    host.ok(["install", "-d", "-m", "0700", MOVES])
    return host


@pytest.fixture
def busy(host):
    """While nobody answers corvctl, and no pause lasts."""
    host.put("/usr/sbin/corvctl", BUSY, mode="0755")
    host.put("/usr/sbin/sleep", PAUSE, mode="0755")
    yield
    host.ok(["rm", "-f", "/usr/sbin/corvctl", "/usr/sbin/sleep", "/run/corvane/resumed", "/run/corvane/paused"])


def test_what_cannot_be_taken_back_is_tried_some_times_and_told_once(host, busy):
    name = host.account().name
    host.put(f"{MOVES}/{name}.undecided", "on-line\n")
    host.run(["systemctl", "start", UNIT])
    told = ["journalctl", "-q", "-o", "cat", "-u", TELLING, "--grep", "^(Finished|Failed to start) "]
    host.wait_for(lambda: host.exists(KEPT) and host.run(told).out != "", "the failure being told")
    assert host.ok(["systemctl", "show", "--value", "-p", "NRestarts,ActiveState", UNIT]).split() == ["0", "failed"]
    assert len(host.run(told).out.splitlines()) == 1
    assert host.get("/run/corvane/resumed") == f"account resume {name}\n" * 12
    assert host.get("/run/corvane/paused") == "10\n" * 11
    assert host.ok(["ls", MOVES]) == f"{name}.stays\n"


def test_the_next_start_takes_it_back(host):
    name = host.account().name
    host.ok(["corvctl", "account", "suspend", name])
    host.put(f"{MOVES}/{name}.stays", "on-line\n")
    host.ok(["ln", f"{MOVES}/{name}.stays", f"{MOVES}/{name}.by-word"])
    host.ok(["systemctl", "start", UNIT])
    assert host.run(["ls", MOVES]).out == "" and not host.exists(KEPT)
    assert host.ok(["getent", "shadow", name]).split(":")[7] == ""


def test_what_is_left_of_an_account_that_was_deleted_is_cleared_away(host):
    for ending in ("undecided", "stays", "frozen", "left"):
        host.put(f"{MOVES}/gone1.{ending}", "on-line\n")
    host.ok(["ln", f"{MOVES}/gone1.undecided", f"{MOVES}/gone1.by-word"])
    host.ok(["systemctl", "start", UNIT])
    assert host.ok(["sh", "-c", f"ls {MOVES}; rm {MOVES}/gone1.left"]) == "gone1.left\n"
