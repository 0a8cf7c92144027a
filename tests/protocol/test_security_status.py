"""security.status: the firewall's and fail2ban's status in one."""

import pytest

import test_fail2ban
import test_firewall
from recorded import SUITES


@pytest.mark.parametrize("suite", SUITES)
def test_both_replies_are_nested_whole(sandbox, suite):
    test_firewall.server(sandbox, suite)
    test_fail2ban.server(sandbox, suite, "fail2ban-no-jails")

    reply = sandbox.request("security.status")

    assert reply == {
        "ok": True,
        "firewall": {"ok": True, "installed": True, "sshPort": "22, 2222", "active": True,
                     "rules": test_firewall.as_objects(test_firewall.RULES)},
        "fail2ban": {"ok": True, "installed": True, "running": True, "jails": []},
    }
    assert sandbox.argvs() == [*test_firewall.ASKED, test_fail2ban.INSTALLED, test_fail2ban.STATUS]


def test_a_host_without_either_is_no_failure(sandbox):
    assert sandbox.request("security.status", {"port": 1}) == {
        "ok": True,
        "firewall": {"ok": True, "installed": False, "sshPort": "22"},
        "fail2ban": {"ok": True, "installed": False},
    }


def test_a_half_that_fails_does_not_fail_the_whole(sandbox):
    test_firewall.server(sandbox)
    test_fail2ban.server(sandbox, status="fail2ban-stopped")
    sandbox.answer("ufw", exit=1, err="ERROR: no")
    assert sandbox.request("security.status") == {
        "ok": True,
        "firewall": {"ok": False, "error": "ufw failed: ERROR: no"},
        "fail2ban": {"ok": True, "installed": True, "running": False},
    }
