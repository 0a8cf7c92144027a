"""The server's restart, and what has to outlive it."""

import pytest
from machinefloor import fill, limits, uid


def pending_restarts(machine):
    """The timers that are going to restart the machine."""
    timers = machine.ok(["systemctl", "show", "--property=Description", "run-*.timer"])
    return [line for line in timers.splitlines() if "reboot" in line]


@pytest.mark.parametrize("name", ["", "WEB1", "web2", "web1.test"])
def test_a_wrong_name_restarts_nothing(machine, name):
    assert machine.request("system.reboot", confirm=name) == {"ok": False,
                                                              "error": "type the server's name to confirm"}
    assert pending_restarts(machine) == []


def test_the_right_name_restarts_and_quotas_outlive_it(quotas, tenant):
    assert quotas.request("quota.set", username=tenant.name, mb=6) == {"ok": True}
    with quotas.restarting():
        # The reply has arrived when this returns: the restart itself follows it.
        assert quotas.request("system.reboot", confirm=" web1 ") == {"ok": True}

    assert quotas.request("quota.status") == {"ok": True, "mount": "/", "fsType": "ext4", "supported": True,
                                              "enabled": True}
    assert quotas.request("quota.enable") == {"ok": True, "already": True}
    assert limits(quotas, uid(quotas, tenant)) == (5529, 6144)
    done = fill(quotas, tenant, 8)
    assert (done.code, "Disk quota exceeded" in done.err) == (1, True)
