"""Every user may write what he likes into the journal, under a program's name of his choice: he has nobody banned by it."""

import json
import subprocess

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
    host.ok(["sh", "-c", "cp /usr/bin/logger ~/sshd"], user=account.name, env={"HOME": account.home})

    def known():
        return host.run(["journalctl", "-q", "-o", "cat", "_COMM=sshd"]).out.count(LINE)

    before = known()
    with host.background(["runuser", "-u", account.name, "--", f"{account.home}/sshd", "-t", "sshd"], stdin=subprocess.PIPE,
                         text=True) as program:
        program.stdin.write(f"{LINE}\n" * 6)
        program.stdin.flush()
        # It lives until the journal has looked up its name for each of them.
        host.wait_for(lambda: known() == before + 6, "the forged lines in the journal")


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
        forge(host, account)
        host.wait_for(lambda: STRANGER in host.ok(["fail2ban-client", "status", "sshd"]), "the stranger being banned")
        host.ok(["fail2ban-client", "set", "sshd", "unbanip", STRANGER])  # before the restart, which keeps all bans
        host.ok(["sh", "-c", mend(host)])
        host.wait_for(lambda: host.run(["fail2ban-client", "status", "sshd"]).code == 0, "the jail after its restart")
    assert not finding(host)
    forge(host, account)
    mark(host, 1)
    assert STRANGER not in host.ok(["fail2ban-client", "status", "sshd"])
