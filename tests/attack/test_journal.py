"""Every user may write what he likes into the journal, under a program's name of his choice: he has nobody banned by it."""

import json

import pytest

LIMIT = 180
STRANGER = "203.0.113.9"
LINE = f"Failed password for root from {STRANGER} port 4711 ssh2"


@pytest.fixture(scope="module")
def own_host(boot):
    """A host whose journal is kept in memory alone, with fail2ban on."""
    host = boot()
    host.put("/etc/systemd/journald.conf.d/volatile.conf", "[Journal]\nStorage=volatile\n")
    host.ok(["sh", "-c", "rm -rf /var/log/journal && systemctl restart systemd-journald"])
    host.request("fail2ban.enable")
    host.wait_for(lambda: host.run(["fail2ban-client", "status", "sshd"]).code == 0, "the jail for SSH")
    yield host
    host.stop()


def failures(host):
    """How many failures the jail for SSH has counted."""
    return int(host.ok(["fail2ban-client", "status", "sshd"]).split("Total failed:")[1].split()[0])


def forge(host, account):
    """Writes failed logins of a stranger as a program named sshd, as any user can."""
    host.ok(["sh", "-c", f"cp /usr/bin/logger ~/sshd && for i in 1 2 3 4 5 6; do ~/sshd -t sshd '{LINE}'; done"],
            user=account.name, env={"HOME": account.home})
    host.ok(["journalctl", "--sync"])
    assert LINE in host.ok(["journalctl", "-q", "-o", "cat", "_COMM=sshd"])


def is_banned_by_it(host, account):
    """Again and again, for the journal does not learn the program's name of each line: it may have ended by then."""
    forge(host, account)
    return STRANGER in host.ok(["fail2ban-client", "status", "sshd"])


def mark(host, number):
    """Has the daemon itself, by a login that fails, write a line after the forged ones, and waits until the jail has read it."""
    before = failures(host)
    host.outside(["ssh", "-o", "BatchMode=yes", "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
                  f"nobody{number}@10.213.0.2", "true"])
    host.wait_for(lambda: failures(host) > before, "the daemon's own line being counted")


def finding(host):
    said = host.run(["corvctl", "--json", "doctor"]).out
    return "believes any local program named sshd" in said


def mend(host):
    """What the doctor prints, run as it is printed."""
    checks = json.loads(host.run(["corvctl", "--json", "doctor"]).out)["checks"]
    return next(found["mend"] for check in checks for found in check["findings"]
                if "believes any local program named sshd" in found["problem"])


def test_a_forged_line_has_nobody_banned_once_the_doctors_mend_was_run(own_host):
    host = own_host
    account = host.account()
    if finding(host):
        # Without the mend it gets through: what follows would prove nothing otherwise.
        host.wait_for(lambda: is_banned_by_it(host, account), "the stranger being banned")
        host.ok(["fail2ban-client", "set", "sshd", "unbanip", STRANGER])  # before the restart, which keeps all bans
        host.ok(["sh", "-c", mend(host)])
        host.wait_for(lambda: host.run(["fail2ban-client", "status", "sshd"]).code == 0, "the jail after its restart")
    assert not finding(host)
    forge(host, account)
    mark(host, 1)
    assert STRANGER not in host.ok(["fail2ban-client", "status", "sshd"])
