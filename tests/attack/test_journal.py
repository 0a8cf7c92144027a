"""Every user may write what he likes into the journal, under a program's name of his choice: he has nobody banned by it."""

import subprocess
from contextlib import contextmanager

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


def forge_in_a_session(host, account):
    """The same by SSH, where the session is in the daemon's own unit."""
    def known():
        return host.run(["journalctl", "-q", "-o", "cat", "_COMM=sshd", "_SYSTEMD_UNIT=ssh.service"]).out.count(LINE)

    before = known()
    host.ok(["sh", "-c", "cp /usr/bin/logger ~/sshd; rm -f ~/go"], user=account.name, env={"HOME": account.home})
    done = host.ssh(account, f"{{ (yes '{LINE}' | head -n 6; until [ -e ~/go ]; do sleep 0.1; done) | ~/sshd -t sshd; }} "
                    "</dev/null >/dev/null 2>&1 &")
    assert done.code == 0, done.err
    host.wait_for(lambda: known() == before + 6, "the forged lines in the journal, as the daemon's unit's")
    host.ok(["touch", f"{account.home}/go"], user=account.name)


def mark(host, user):
    """Has the daemon itself, by a login with a wrong password, write a line after the forged ones, and waits until the jail has
    counted it."""
    before = failures(host)
    host.outside(["env", "SSH_ASKPASS=/bin/echo", "SSH_ASKPASS_REQUIRE=force", "ssh", "-F", "/dev/null",
                  "-o", "PreferredAuthentications=password", "-o", "NumberOfPasswordPrompts=1", "-o", "StrictHostKeyChecking=no",
                  "-o", "UserKnownHostsFile=/dev/null", f"{user}@10.213.0.2", "true"])
    host.wait_for(lambda: failures(host) > before, "the daemon's own line being counted")


@contextmanager
def sessions_without_units(host):
    """As on a server without libpam-systemd: sessions stay in the unit of whoever let them in."""
    file = "/etc/pam.d/common-session"
    before = host.get(file)
    host.put(file, "".join(line for line in before.splitlines(keepends=True) if "pam_systemd" not in line))
    assert host.get(file) != before
    try:
        yield
    finally:
        host.put(file, before)


def restart_jail(host):
    host.ok(["systemctl", "restart", "fail2ban"])
    host.wait_for(lambda: host.run(["fail2ban-client", "status", "sshd"]).code == 0, "the jail after its restart")


def forgive(host):
    """Lifts the stranger's ban; before a restart, which keeps all bans, and counts what the journal holds once more."""
    host.ok(["fail2ban-client", "set", "sshd", "unbanip", STRANGER])


def mend(host):
    """What the doctor shows to be typed where it finds the jail; nothing where it does not."""
    problem = ""
    for line in host.run(["corvctl", "doctor"]).out.splitlines():
        if line.startswith(("FAULT", "NOTE")):
            problem = ""
        problem += " " + line[8:]
        if line.startswith(" " * 8 + "# ") and "believes users' programs named sshd too" in problem:
            return line[10:]
    return ""


def test_a_forged_line_has_nobody_banned_once_the_doctors_mend_was_run(own_host):
    host = own_host
    account = host.account()
    if mend(host):
        # Without the mend it gets through: what follows would prove nothing otherwise.
        forge(host, account)
        host.wait_for(lambda: STRANGER in host.ok(["fail2ban-client", "status", "sshd"]), "the stranger being banned")
        forgive(host)
        host.ok(["sh", "-c", mend(host)])
        host.wait_for(lambda: host.run(["fail2ban-client", "status", "sshd"]).code == 0, "the jail after its restart")
    assert not mend(host)
    forge(host, account)
    mark(host, "nobody1")
    assert STRANGER not in host.ok(["fail2ban-client", "status", "sshd"])


def test_a_line_of_a_session_in_the_daemons_own_unit_has_nobody_banned_once_the_doctors_mend_was_run(own_host):
    host = own_host
    account = host.account()
    host.ok(["rm", "-f", "/etc/fail2ban/jail.d/zz-sshd-journal.local"])
    host.put("/etc/fail2ban/jail.d/sshd-journal.local", "[sshd]\njournalmatch = _SYSTEMD_UNIT=ssh.service\n")
    with sessions_without_units(host):
        restart_jail(host)
        # The unit alone lets it through: what follows would prove nothing otherwise.
        forge_in_a_session(host, account)
        host.wait_for(lambda: STRANGER in host.ok(["fail2ban-client", "status", "sshd"]), "the stranger being banned")
        forgive(host)
        command = mend(host)
        assert command
        host.ok(["sh", "-c", command])
        host.wait_for(lambda: host.run(["fail2ban-client", "status", "sshd"]).code == 0, "the jail after its restart")
        assert not mend(host)
        forge_in_a_session(host, account)
        mark(host, "nobody2")
        mark(host, account.name)
    assert STRANGER not in host.ok(["fail2ban-client", "status", "sshd"])
