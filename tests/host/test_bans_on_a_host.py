"""The real fail2ban: failed sign-ins at the panel and over SSH ban an address, and lifting the ban lets it in again."""

import pytest
from hostfloor import ADDRESS

LIMIT = 180

OUTSIDE = "10.213.0.1"
FILES = ("/etc/fail2ban/filter.d/corv-web.conf", "/etc/fail2ban/jail.d/corvane.local")


@pytest.fixture(scope="module")
def host(boot):
    """A host of its own: a ban of the outside would be in other tests' way."""
    return boot()


@pytest.fixture(scope="module")
def enabled(host):
    """Enables fail2ban on a host without it, and waits until its server answers: the replies before and of the command."""
    before = host.request("fail2ban.status")
    reply = host.request("fail2ban.enable")
    host.wait_for(lambda: [jail["name"] for jail in jails(host)] == ["corv-web", "sshd"], "both jails running")
    return before, reply


@pytest.fixture
def account(host):
    account = host.account()
    yield account
    host.remove_accounts()


def jails(host):
    return sorted(host.request("fail2ban.status").get("jails", []), key=lambda jail: jail["name"])


def jail(host, name):
    return next(entry for entry in jails(host) if entry["name"] == name)


def banned(host, name):
    return jail(host, name)["banned"]


def fail_sign_ins(host, address, count=5, unit="corv-web", identifier="corv-web"):
    """Writes so many failed sign-ins to the journal as the panel does."""
    host.ok(["systemd-run", "--quiet", "--wait", "--collect", f"--unit={unit}",
             f"--property=SyslogIdentifier={identifier}", "sh", "-c",
             f"for i in $(seq {count}); do echo 'login failed for admin from {address}'; done; journalctl --sync"])


def filtered(host, address):
    """Whether the packet filter knows the address."""
    return address in host.ok(["nft", "list", "ruleset"])


def page_status(host):
    """The status of the host's page as the outside sees it, None where no connection comes about."""
    done = host.outside(["curl", "-q", "-s", "-o", "/dev/null", "-w", "%{http_code}", "--max-time", "5", f"http://{ADDRESS}/"])
    return done.out if done.code == 0 else None


@pytest.mark.core
def test_enabling_installs_fail2ban_and_starts_it_for_good(host, enabled):
    before, reply = enabled
    assert before == {"ok": True, "installed": False}
    assert reply == {"ok": True}
    for package in ("fail2ban", "python3-systemd"):
        assert host.ok(["dpkg-query", "-W", "-f=${Status}", package]) == "install ok installed"
    assert host.active("fail2ban")
    assert host.ok(["systemctl", "is-enabled", "fail2ban"]) == "enabled\n"
    assert [host.mode(path) for path in FILES] == ["644 root root"] * 2


def test_a_second_enabling_writes_the_same_files_and_restarts(host, enabled):
    before = [host.get(path) for path in FILES]
    started = host.ok(["systemctl", "show", "-pExecMainPID", "fail2ban"])
    assert host.request("fail2ban.enable") == {"ok": True}
    assert [host.get(path) for path in FILES] == before
    assert host.ok(["systemctl", "show", "-pExecMainPID", "fail2ban"]) != started
    host.wait_for(lambda: len(jails(host)) == 2, "both jails running")


@pytest.mark.core
def test_the_server_holds_the_policy(host, enabled):
    for name in ("sshd", "corv-web"):
        values = {key: host.ok(["fail2ban-client", "get", name, key]).strip() for key in ("bantime", "findtime", "maxretry")}
        assert values == {"bantime": "3600", "findtime": "600", "maxretry": "5"}
        ignored = host.ok(["fail2ban-client", "get", name, "ignoreip"])
        assert "127.0.0.0/8" in ignored and "::1" in ignored


@pytest.mark.core
def test_failed_sign_ins_ban_until_the_ban_is_lifted(host, enabled, account):
    assert page_status(host) == "200"
    fail_sign_ins(host, OUTSIDE)
    host.wait_for(lambda: banned(host, "corv-web") == [OUTSIDE], "the ban")
    assert jail(host, "corv-web")["totalBanned"] >= 1
    host.wait_for(lambda: filtered(host, OUTSIDE), "the ban in the packet filter")
    assert page_status(host) is None
    # The panel's jail shuts the web's ports alone.
    assert host.ssh(account, "echo in").out == "in\n"

    assert host.request("fail2ban.unban", jail="corv-web", ip=OUTSIDE) == {"ok": True}
    assert banned(host, "corv-web") == []
    assert not filtered(host, OUTSIDE)
    assert page_status(host) == "200"


def test_four_failed_sign_ins_do_not_ban(host, enabled):
    fail_sign_ins(host, "198.51.100.4", 4)
    fail_sign_ins(host, "198.51.100.5")
    host.wait_for(lambda: banned(host, "corv-web") == ["198.51.100.5"], "the ban of the address that failed five times")
    assert host.request("fail2ban.unban", jail="corv-web", ip="198.51.100.5") == {"ok": True}


@pytest.mark.core
def test_an_address_of_version_six_is_banned_and_unbanned(host, enabled):
    fail_sign_ins(host, "2001:db8::7")
    host.wait_for(lambda: banned(host, "corv-web") == ["2001:db8::7"], "the ban")
    host.wait_for(lambda: filtered(host, "2001:db8::7"), "the ban in the packet filter")
    assert host.request("fail2ban.unban", jail="corv-web", ip="2001:db8::7") == {"ok": True}
    assert banned(host, "corv-web") == []


def test_lines_of_another_unit_and_of_loopback_ban_nobody(host, enabled):
    fail_sign_ins(host, "198.51.100.8", unit="other-web")
    fail_sign_ins(host, "127.0.0.1")
    fail_sign_ins(host, "198.51.100.9")
    host.wait_for(lambda: banned(host, "corv-web") == ["198.51.100.9"], "the ban of the only address that counts")
    assert host.request("fail2ban.unban", jail="corv-web", ip="198.51.100.9") == {"ok": True}


@pytest.mark.core
def test_failed_ssh_logins_ban_until_the_ban_is_lifted(host, enabled, account):
    assert host.ssh(account, "echo in").out == "in\n"
    for _ in range(5):
        assert host.ssh("nosuchuser", "true").code == 255
    host.wait_for(lambda: banned(host, "sshd") == [OUTSIDE], "the ban")
    host.wait_for(lambda: filtered(host, OUTSIDE), "the ban in the packet filter")
    assert host.ssh(account, "echo in").code == 255

    assert host.request("fail2ban.unban", jail="sshd", ip=OUTSIDE) == {"ok": True}
    assert banned(host, "sshd") == []
    assert not filtered(host, OUTSIDE)
    assert host.ssh(account, "echo in").out == "in\n"


@pytest.mark.parametrize("name", ["nosuchjail", "--help", "-h"])
def test_a_jail_that_is_not_there_is_the_clients_to_refuse(host, enabled, name):
    reply = host.request("fail2ban.unban", jail=name, ip="198.51.100.9")
    assert reply["ok"] is False
    assert reply["error"].startswith("fail2ban-client failed: ")
    assert reply["error"].endswith(f"NOK: ('{name}',)")


def test_a_stopped_server_is_told_from_one_without_bans(host, enabled):
    host.ok(["systemctl", "stop", "fail2ban"])
    assert host.request("fail2ban.status") == {"ok": True, "installed": True, "running": False}
    assert host.request("fail2ban.enable") == {"ok": True}
    host.wait_for(lambda: len(jails(host)) == 2, "both jails running again")


def test_the_security_status_holds_both(host, enabled):
    assert host.request("security.status") == {
        "ok": True, "firewall": host.request("firewall.status"), "fail2ban": host.request("fail2ban.status")}
