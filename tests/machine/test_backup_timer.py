"""The nightly backup starts by the clock, which only a machine of its own lets a test set."""

import pytest

TIMER = "corv-backup.timer"
STAMP = "/var/lib/systemd/timers/stamp-corv-backup.timer"


def set_clock(machine, moment):
    machine.ok(["date", "-s", f"@{moment}"])


def next_night(machine):
    """The next 03:14:50, seconds before the timer's hour."""
    return int(machine.ok(["date", "-d", "tomorrow 03:14:50", "+%s"]))


def finished(machine):
    return [backup["name"] for backup in machine.request("backup.status")["backups"]]


@pytest.fixture(scope="module")
def nights(machine):
    """The machine, with no timer but the backup's, and that without its delay: all others would be due too."""
    others = [line.split()[0] for line in
              machine.ok(["systemctl", "list-units", "--type=timer", "--plain", "--no-legend"]).splitlines()]
    machine.ok(["systemctl", "stop", *(name for name in others if name != TIMER)])
    machine.put(f"/run/systemd/system/{TIMER}.d/at-once.conf", "[Timer]\nRandomizedDelaySec=0\nAccuracySec=1s\n")
    machine.ok(["systemctl", "daemon-reload"])
    return machine


def test_the_shipped_timer_is_on_and_spreads_its_starts_over_an_hour(machine):
    shown = machine.ok(["systemctl", "show", "-p", "RandomizedDelayUSec", "-p", "Persistent", "-p", "UnitFileState", "-p",
                        "ActiveState", TIMER])
    assert sorted(shown.split()) == ["ActiveState=active", "Persistent=yes", "RandomizedDelayUSec=1h",
                                     "UnitFileState=enabled"]


@pytest.mark.turn
def test_the_timer_fires_when_the_clock_reaches_its_hour(nights):
    before = finished(nights)
    night = next_night(nights)
    set_clock(nights, night)
    nights.wait_for(lambda: len(finished(nights)) == len(before) + 1, "the backup of the night")
    day = nights.ok(["date", "-d", f"@{night}", "+%Y-%m-%d"]).strip()
    assert finished(nights)[0].startswith(f"{day}_0315")


@pytest.mark.turn
def test_a_night_that_was_slept_through_is_caught_up(nights):
    before = finished(nights)
    nights.ok(["systemctl", "stop", TIMER])
    night = next_night(nights)
    set_clock(nights, night + 6 * 3600)
    assert finished(nights) == before
    nights.ok(["systemctl", "start", TIMER])
    nights.wait_for(lambda: len(finished(nights)) == len(before) + 1, "the backup of the night before")
    assert int(nights.ok(["stat", "-c", "%Y", STAMP])) >= night
