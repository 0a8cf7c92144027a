"""fail2ban: what is read out of its client, the files that enabling writes, and lifting a ban."""

import os

import pytest

from recorded import SUITES, failure, recorded

INSTALLED = ["dpkg-query", "-W", "-f=${Status}", "fail2ban"]
STATUS = ["fail2ban-client", "status"]
INSTALL = ["env", "DEBIAN_FRONTEND=noninteractive", "apt-get", "install", "-yq", "fail2ban", "python3-systemd"]
ENABLE = ["systemctl", "enable", "fail2ban"]
RESTART = ["systemctl", "restart", "fail2ban"]

FILTER_PATH = "/etc/fail2ban/filter.d/corv-web.conf"
JAIL_PATH = "/etc/fail2ban/jail.d/corvane.local"

FILTER = """\
# Managed by Corvane
[INCLUDES]
before = common.conf

[Definition]
_daemon = corv-web
failregex = ^%(__prefix_line)slogin failed for .* from <HOST>$
ignoreregex =
"""

JAILS = """\
# Managed by Corvane: SSH and the panel's sign-in. Addresses that fail 5 times in
# 10 minutes are blocked for an hour. Unban from Security in the panel.
[DEFAULT]
ignoreip = 127.0.0.1/8 ::1
bantime = 1h
findtime = 10m
maxretry = 5

[sshd]
enabled = true
backend = systemd

[corv-web]
enabled = true
backend = systemd
filter = corv-web
journalmatch = _SYSTEMD_UNIT=corv-web.service
port = http,https
"""

BAD = "bad jail or address"


def server(sandbox, suite="bookworm", status="fail2ban-two-jails"):
    """A host with fail2ban, whose tools answer as recorded."""
    sandbox.answer("dpkg-query", ..., **recorded(suite, "dpkg-installed"))
    sandbox.answer("fail2ban-client", "status", **recorded(suite, status))
    return sandbox


def jail(name, failed=0, total=0, banned=()):
    return {"name": name, "failed": failed, "totalBanned": total, "banned": list(banned)}


def told(sandbox, name, text, **how):
    sandbox.answer("fail2ban-client", "status", name, out=text, **how)


# Status


@pytest.mark.parametrize("suite", SUITES)
def test_status_shows_the_jails_in_the_server_s_order(sandbox, suite):
    server(sandbox, suite)
    sandbox.answer("fail2ban-client", "status", "sshd", **recorded(suite, "fail2ban-jail-banned"))
    sandbox.answer("fail2ban-client", "status", "recidive", **recorded(suite, "fail2ban-jail-empty"))

    reply = sandbox.request("fail2ban.status")

    assert reply == {"ok": True, "installed": True, "running": True, "jails": [
        jail("recidive"), jail("sshd", 0, 3, ["203.0.113.7", "198.51.100.2", "2001:db8::1"]),
    ]}
    assert sandbox.argvs() == [INSTALLED, STATUS, [*STATUS, "recidive"], [*STATUS, "sshd"]]


@pytest.mark.parametrize("suite", SUITES)
def test_status_without_jails_has_an_empty_list(sandbox, suite):
    server(sandbox, suite, "fail2ban-no-jails")
    assert sandbox.request("fail2ban.status") == {"ok": True, "installed": True, "running": True, "jails": []}
    assert sandbox.argvs() == [INSTALLED, STATUS]


@pytest.mark.parametrize("suite", SUITES)
@pytest.mark.parametrize("package", ["dpkg-unknown", "dpkg-removed"])
def test_status_without_fail2ban_is_no_failure(sandbox, suite, package):
    server(sandbox, suite)
    sandbox.answer("dpkg-query", ..., **recorded(suite, package))
    assert sandbox.request("fail2ban.status") == {"ok": True, "installed": False}
    assert sandbox.argvs() == [INSTALLED]


@pytest.mark.parametrize("suite", SUITES)
def test_status_of_a_stopped_server_is_no_failure(sandbox, suite):
    server(sandbox, suite, "fail2ban-stopped")
    assert sandbox.request("fail2ban.status") == {"ok": True, "installed": True, "running": False}
    assert sandbox.argvs() == [INSTALLED, STATUS]


def test_status_of_a_server_whose_client_is_missing_is_no_failure(sandbox):
    server(sandbox)
    sandbox.remove_standin("fail2ban-client")
    assert sandbox.request("fail2ban.status") == {"ok": True, "installed": True, "running": False}


def test_status_of_a_server_that_hangs_is_no_failure(impatient):
    server(impatient)
    impatient.answer("fail2ban-client", "status", hang=True)
    assert impatient.request("fail2ban.status") == {"ok": True, "installed": True, "running": False}


@pytest.mark.parametrize("suite", SUITES)
def test_a_jail_that_cannot_be_told_shows_as_an_empty_one(sandbox, suite):
    server(sandbox, suite)
    sandbox.answer("fail2ban-client", "status", "sshd", **recorded(suite, "fail2ban-status-unknown-jail"))
    assert sandbox.request("fail2ban.status")["jails"] == [jail("recidive"), jail("sshd")]


def test_what_a_failing_jail_status_says_counts_all_the_same(sandbox):
    server(sandbox, status="fail2ban-one-jail")
    told(sandbox, "sshd", "Currently failed: 2\nTotal banned: 3\nBanned IP list: ::1\n", exit=1, err="NOK")
    assert sandbox.request("fail2ban.status")["jails"] == [jail("sshd", 2, 3, ["::1"])]


def test_a_jail_that_hangs_does_not_inherit_what_another_said(impatient):
    server(impatient)
    impatient.answer("fail2ban-client", "status", "recidive", **recorded("bookworm", "fail2ban-jail-banned"))
    impatient.answer("fail2ban-client", "status", "sshd", hang=True)
    assert impatient.request("fail2ban.status")["jails"][1] == jail("sshd")


@pytest.mark.parametrize("status, names", [
    ("Jail list:\tsshd, corv-web\n", ["sshd", "corv-web"]),
    ("Jail list:", []),
    ("Jail list: ,, a ,\tb,\n", ["a", "b"]),
    ("Jail list: a,\nb, c\n\n", ["a", "b", "c"]),
    ("Status\n", []),
    ("", []),
    ("jail list: a\n", []),
])
def test_everything_after_the_label_is_the_list(sandbox, status, names):
    server(sandbox)
    sandbox.answer("fail2ban-client", "status", out=status)
    assert sandbox.request("fail2ban.status") == {
        "ok": True, "installed": True, "running": True, "jails": [jail(name) for name in names],
    }
    assert sandbox.argvs("fail2ban-client") == [STATUS, *([*STATUS, name] for name in names)]


@pytest.mark.parametrize("status, expected", [
    ("Currently failed:\t1\nTotal banned:\t4\nBanned IP list:\t203.0.113.7 198.51.100.2\n",
     jail("sshd", 1, 4, ["203.0.113.7", "198.51.100.2"])),
    ("Currently failed: 2147483647\nTotal banned: 2147483648\n", jail("sshd", 2147483647, 0)),
    ("Currently failed: 1.5\nTotal banned: 1e3\n", jail("sshd")),
    ("Currently failed: many\nTotal banned: \n", jail("sshd")),
    ("Banned IP list:  a   b \nc\n", jail("sshd", 0, 0, ["a", "b"])),
    ("Banned IP list:\ta\tb\n", jail("sshd", 0, 0, ["a\tb"])),
    ("Total banned: 1\nTotal banned: 2\n", jail("sshd", 0, 1)),
    ("Banned IP list:\n203.0.113.7\n", jail("sshd")),
])
def test_a_jail_s_values_follow_their_labels(sandbox, status, expected):
    server(sandbox, status="fail2ban-one-jail")
    told(sandbox, "sshd", status)
    assert sandbox.request("fail2ban.status")["jails"] == [expected]


def test_many_banned_addresses_are_all_shown(sandbox):
    addresses = [f"10.{n >> 16}.{n >> 8 & 255}.{n & 255}" for n in range(5000)]
    server(sandbox, status="fail2ban-one-jail")
    told(sandbox, "sshd", "   |- Total banned:\t5000\n   `- Banned IP list:\t" + " ".join(addresses) + "\n")
    assert sandbox.request("fail2ban.status")["jails"] == [jail("sshd", 0, 5000, addresses)]


# Enable


def files(sandbox):
    return {**sandbox.tree("/etc/fail2ban/filter.d"), **sandbox.tree("/etc/fail2ban/jail.d")}


WRITTEN = {"corv-web.conf": f"0644 root:root {FILTER}", "corvane.local": f"0644 root:root {JAILS}"}


def test_enable_installs_writes_and_restarts(sandbox):
    sandbox.add_standin("env")
    assert sandbox.request("fail2ban.enable") == {"ok": True}
    assert sandbox.argvs() == [INSTALL, ENABLE, RESTART]
    assert files(sandbox) == WRITTEN


def test_enable_does_the_same_where_all_is_there(sandbox):
    sandbox.answer("dpkg-query", ..., **recorded("bookworm", "dpkg-installed"))
    sandbox.add_standin("env")
    for _ in range(2):
        assert sandbox.request("fail2ban.enable") == {"ok": True}
    assert sandbox.argvs() == [INSTALL, ENABLE, RESTART] * 2
    assert files(sandbox) == WRITTEN


def test_enable_writes_the_files_before_the_server_reads_them(sandbox):
    sandbox.add_standin("env")
    sandbox.answer("systemctl", "enable", ..., shell=f'[ -s {FILTER_PATH} ] && [ -s {JAIL_PATH} ] || exit 9')
    assert sandbox.request("fail2ban.enable") == {"ok": True}


def test_enable_writes_nothing_when_the_packages_cannot_be_installed(sandbox):
    sandbox.answer("env", ..., exit=100, err="E: Unable to locate package fail2ban\n")
    assert sandbox.request("fail2ban.enable") == {
        "ok": False, "error": "env failed: E: Unable to locate package fail2ban",
    }
    assert sandbox.argvs() == [INSTALL]
    assert files(sandbox) == {}


def test_enable_keeps_the_mode_and_owner_of_its_files(sandbox):
    sandbox.add_standin("env")
    sandbox.write(FILTER_PATH, "old", mode=0o600, owner="root:mail")
    sandbox.write(JAIL_PATH, "old", mode=0o640)
    assert sandbox.request("fail2ban.enable") == {"ok": True}
    assert files(sandbox) == {"corv-web.conf": f"0600 root:mail {FILTER}", "corvane.local": f"0640 root:root {JAILS}"}


@pytest.mark.parametrize("path, others", [(FILTER_PATH, {}), (JAIL_PATH, {"corv-web.conf": WRITTEN["corv-web.conf"]})])
@pytest.mark.parametrize("hindrance", ["folder in its place", "no folder", "full disk"])
def test_enable_names_the_file_that_cannot_be_written(sandbox, path, others, hindrance):
    sandbox.add_standin("env")
    folder = os.path.dirname(path)
    if hindrance == "folder in its place":
        sandbox.mkdir(path)
        others = {**others, os.path.basename(path): "0755 root:root"}
    elif hindrance == "no folder":
        sandbox.path(folder).rmdir()
    else:
        sandbox.small_disk(folder, "4k")
        others = {**others, "fill": "0644 root:root " + "x" * 4096}
        sandbox.write(f"{folder}/fill", "x" * 4096)

    assert sandbox.request("fail2ban.enable") == {"ok": False, "error": f"cannot write {path}"}

    assert sandbox.argvs() == [INSTALL]
    assert files(sandbox) == others


def test_enable_leaves_the_old_file_when_the_disk_is_full(sandbox):
    sandbox.add_standin("env")
    sandbox.small_disk("/etc/fail2ban/jail.d", "8k")
    sandbox.write(JAIL_PATH, "old\n")
    sandbox.write("/etc/fail2ban/jail.d/fill", "x" * 4096)
    assert sandbox.request("fail2ban.enable") == {"ok": False, "error": f"cannot write {JAIL_PATH}"}
    assert sandbox.tree("/etc/fail2ban/jail.d") == {
        "corvane.local": "0644 root:root old\n", "fill": "0644 root:root " + "x" * 4096,
    }


@pytest.mark.parametrize("step, calls", [("enable", [INSTALL, ENABLE]), ("restart", [INSTALL, ENABLE, RESTART])])
def test_enable_fails_as_systemctl_does_and_keeps_the_files(sandbox, step, calls):
    sandbox.add_standin("env")
    sandbox.answer("systemctl", step, "fail2ban", exit=1, err="Job for fail2ban.service failed.\n")
    assert sandbox.request("fail2ban.enable") == {
        "ok": False, "error": "systemctl failed: Job for fail2ban.service failed.",
    }
    assert sandbox.argvs() == calls
    assert files(sandbox) == WRITTEN


# Unban


LONGEST = "a" * 64


@pytest.mark.parametrize("name", ["sshd", "corv-web", "A_1", LONGEST, "-", "--help", "-h"])
@pytest.mark.parametrize("address", ["203.0.113.7", "2001:db8::1", "::1", "2001:DB8::A", "::ffff:203.0.113.7"])
def test_unban_is_one_call(sandbox, name, address):
    sandbox.answer("fail2ban-client", "set", ..., **recorded("bookworm", "fail2ban-unban"))
    assert sandbox.request("fail2ban.unban", jail=name, ip=address) == {"ok": True}
    assert sandbox.argvs() == [["fail2ban-client", "set", name, "unbanip", address]]


@pytest.mark.parametrize("name", [
    "", "a b", " sshd", "sshd ", "sshd\n", "sshd\0", LONGEST + "a", "a.b", "a/b", "jäil", "*", "$(x)", None, 1, True, ["sshd"],
])
def test_unban_refuses_a_jail(sandbox, name):
    assert sandbox.request("fail2ban.unban", jail=name, ip="203.0.113.7") == {"ok": False, "error": BAD}
    assert sandbox.argvs() == []


@pytest.mark.parametrize("address", [
    "", "203.0.113.0/24", "203.0.113.7/32", "::1/128", "example.org", "localhost", "203.0.113.300", "203.0.113", "127.1",
    "2130706433", "010.0.0.1", "0x7f000001", " 203.0.113.7", "203.0.113.7 ", "203.0.113.7\n", "203.0.113.7\0", "fe80::1%eth0",
    "::1%$(x)", "[::1]", "1::2::3", "--all", "-1", "any", "203.0.113.7 198.51.100.2", None, 1, 2130706433, True, [], {},
])
def test_unban_refuses_an_address(sandbox, address):
    assert sandbox.request("fail2ban.unban", jail="sshd", ip=address) == {"ok": False, "error": BAD}
    assert sandbox.argvs() == []


@pytest.mark.parametrize("args", [{}, {"jail": "sshd"}, {"ip": "203.0.113.7"}])
def test_unban_refuses_what_is_missing(sandbox, args):
    assert sandbox.request("fail2ban.unban", args) == {"ok": False, "error": BAD}


@pytest.mark.parametrize("suite", SUITES)
@pytest.mark.parametrize("recording", ["fail2ban-unknown-jail", "fail2ban-dash-jail", "fail2ban-stopped"])
def test_unban_fails_as_the_client_does(sandbox, suite, recording):
    answer = recorded(suite, recording)
    sandbox.answer("fail2ban-client", ..., **answer)
    assert sandbox.request("fail2ban.unban", jail="sshd", ip="203.0.113.7") == {
        "ok": False, "error": failure("fail2ban-client", answer),
    }


@pytest.mark.parametrize("suite", SUITES)
def test_unban_leaves_it_to_the_client_whether_there_was_a_ban(sandbox, suite):
    sandbox.answer("fail2ban-client", "set", ..., **recorded(suite, "fail2ban-unban-not-banned"))
    assert sandbox.request("fail2ban.unban", jail="sshd", ip="192.0.2.1") == {"ok": True}
