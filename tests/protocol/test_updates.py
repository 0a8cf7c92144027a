"""Updates of the system and the restart: what is shown, what is started, and what is refused while it runs."""

import datetime
import os
import re

import pytest

from recorded import SUITES, failure, recorded

LIST = ["apt", "list", "--upgradable"]
RUNNING = ["systemctl", "is-active", "--quiet", "corv-upgrade"]
REFRESH = ["apt-get", "update", "-q"]
STAMP = "/var/lib/apt/periodic/update-success-stamp"
TOUCH = ["touch", STAMP]
REBOOT = ["systemd-run", "--on-active=5", "--quiet", "--collect", "systemctl", "reboot"]
LOG = "/var/log/corvane/upgrade.log"
FLAG = "/run/reboot-required"
FLAG_PACKAGES = "/run/reboot-required.pkgs"
AUTOMATIC = "/etc/apt/apt.conf.d/20auto-upgrades"

ALL = ("apt-get update -q && apt-get -yq -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold dist-upgrade"
       " && apt-get -yq autoremove")
SECURITY = "apt-get update -q && unattended-upgrade -v"


def installation(command):
    return ["systemd-run", "--unit=corv-upgrade", "--collect", "--quiet", "--setenv=DEBIAN_FRONTEND=noninteractive",
            f"--property=StandardOutput=append:{LOG}", f"--property=StandardError=append:{LOG}", "/bin/sh", "-c",
            command + '; echo "== finished (exit $?)"']


def settings(value):
    return f'APT::Periodic::Update-Package-Lists "1";\nAPT::Periodic::Unattended-Upgrade "{value}";\n'


NOTHING = {
    "ok": True, "updates": 0, "security": 0, "packages": [], "rebootRequired": False, "rebootPackages": [], "automatic": False,
    "lastCheck": None, "running": False, "log": "", "hostname": "sandbox",
}


@pytest.fixture
def server(sandbox):
    """A host on which no installation runs."""
    return idle(sandbox)


def idle(sandbox):
    sandbox.answer("systemctl", *RUNNING[1:], **recorded("bookworm", "systemctl-is-active-unknown"))
    sandbox.add_standin("touch")
    return sandbox


def busy(sandbox, suite="bookworm"):
    sandbox.answer("systemctl", *RUNNING[1:], **recorded(suite, "systemctl-is-active-upgrade"))
    return sandbox


# Status


@pytest.mark.parametrize("suite", SUITES)
def test_status_of_a_host_that_is_up_to_date(server, suite):
    server.answer("apt", *LIST[1:], **recorded(suite, "apt-none"))
    server.answer("systemctl", *RUNNING[1:], **recorded(suite, "systemctl-is-active-unknown"))
    assert server.request("updates.status") == NOTHING
    assert server.argvs() == [LIST, RUNNING]


@pytest.mark.parametrize("suite", SUITES)
def test_status_lists_packages_and_flags_security(server, suite):
    server.answer("apt", *LIST[1:], **recorded(suite, "apt-upgradable"))
    assert server.request("updates.status") == {
        **NOTHING, "updates": 3, "security": 2, "packages": [
            {"name": "both-one", "to": "1.1", "from": "1.0", "security": True},
            {"name": "plain-one", "to": "1.0-2", "from": "1.0-1", "security": False},
            {"name": "secure-one", "to": "1:2.0-1+deb1u1", "from": "1:2.0~rc1-1", "security": True},
        ],
    }


def package(name, to, old, security):
    return {"name": name, "to": to, "from": old, "security": security}


@pytest.mark.parametrize("line, expected", [
    ("openssl/noble-updates,noble-security 3.0.13-0ubuntu3.5 amd64 [upgradable from: 3.0.13-0ubuntu3.4]",
     [package("openssl", "3.0.13-0ubuntu3.5", "3.0.13-0ubuntu3.4", True)]),
    ("curl/noble-updates 8.5.0-2ubuntu10.6 amd64 [upgradable from: 8.5.0-2ubuntu10.5]",
     [package("curl", "8.5.0-2ubuntu10.6", "8.5.0-2ubuntu10.5", False)]),
    ("my-security-tool/stable 2 all [upgradable from: 1]", [package("my-security-tool", "2", "1", False)]),
    ("a/x/y-security 2 all [upgradable from: 1]", [package("a", "2", "1", True)]),
    ("a/stable 2 all [upgradable from: 1] trailing", [package("a", "2", "1", False)]),
    ("a/stable 2 all [upgradable from: 1\r", []),
    (" a/stable 2 all [upgradable from: 1]", []),
    ("a/stable 2 [upgradable from: 1]", []),
    ("a/stable,now 2 all [installed]", []),
    ("Listing...", []),
])
def test_a_package_is_one_line(server, line, expected):
    server.answer("apt", *LIST[1:], out=f"Listing...\n{line}\n")
    reply = server.request("updates.status")
    assert reply["packages"] == expected
    assert (reply["updates"], reply["security"]) == (len(expected), sum(entry["security"] for entry in expected))


def test_the_list_of_a_failing_apt_counts_all_the_same(server):
    server.answer("apt", *LIST[1:], out="a/stable 2 all [upgradable from: 1]\n", err="E: broken", exit=100)
    assert server.request("updates.status")["packages"] == [package("a", "2", "1", False)]


def test_a_missing_apt_leaves_an_empty_list(server):
    server.remove_standin("apt")
    assert server.request("updates.status") == NOTHING


def test_an_apt_that_hangs_leaves_an_empty_list(impatient):
    idle(impatient).answer("apt", *LIST[1:], out="a/stable 2 all [upgradable from: 1]\n", hang=True)
    assert impatient.request("updates.status") == NOTHING


def test_status_shows_the_pending_restart(server):
    server.write(FLAG, "*** System restart required ***\n")
    server.write(FLAG_PACKAGES, "linux-image-6.1\ndbus\n\nlinux-image-6.1\n")
    assert server.request("updates.status") == {
        **NOTHING, "rebootRequired": True, "rebootPackages": ["linux-image-6.1", "dbus"],
    }


def test_packages_that_ask_for_a_restart_are_no_restart_flag(server):
    server.write(FLAG_PACKAGES, "dbus")
    assert server.request("updates.status") == {**NOTHING, "rebootPackages": ["dbus"]}


@pytest.mark.parametrize("text, on", [
    (settings(1), True),
    (settings(0), False),
    ('APT::Periodic::Update-Package-Lists "1";\n', False),
    ('APT::Periodic { Unattended-Upgrade\t"1"; };\n', True),
    ('APT::Periodic::Unattended-Upgrade "10";\n', False),
    ("", False),
])
def test_automatic_updates_are_read_from_their_file(server, text, on):
    server.write(AUTOMATIC, text)
    assert server.request("updates.status") == {**NOTHING, "automatic": on}


def test_the_last_check_is_the_time_of_the_stamp(server):
    os.utime(server.write(STAMP), (1700000000, 1700000001.75))
    assert server.request("updates.status") == {**NOTHING, "lastCheck": 1700000001}


@pytest.mark.parametrize("suite", SUITES)
def test_status_says_that_an_installation_runs(server, suite):
    busy(server, suite)
    assert server.request("updates.status") == {**NOTHING, "running": True}


def test_status_names_the_host(server):
    server.start(hostname="web1")
    assert server.request("updates.status") == {**NOTHING, "hostname": "web1"}


def lines(first, last):
    return "".join(f"line {number}\n" for number in range(first, last + 1))


@pytest.mark.parametrize("text, tail", [
    ("", ""),
    (lines(1, 10), lines(1, 10)),
    (lines(1, 39), lines(1, 39)),
    (lines(1, 40), lines(2, 40)),
    (lines(1, 1000), lines(962, 1000)),
    (lines(1, 40)[:-1], lines(1, 40)[:-1]),
    ("no end", "no end"),
    ("\n" * 100, "\n" * 39),
    ("x" * 65536, "x" * 65536),
    ("y" + "x" * 65536, "x" * 65536),
    ("y" + "x" * 65535 + "\n", "x" * 65535 + "\n"),
    ("ü" + "x" * 65535, "\ufffd" + "x" * 65535),
    (b"\xff\xfe bad\n", "\ufffd\ufffd bad\n"),
    ("10%\r20%\r\n", "10%\r20%\r\n"),
    (lines(1, 100000), lines(99962, 100000)),
], ids=range(15))
def test_status_shows_the_end_of_the_log(server, text, tail):
    server.write(LOG, text)
    assert server.request("updates.status") == {**NOTHING, "log": tail}


def test_the_end_of_a_huge_log_costs_no_more(server):
    server.start()
    server.request("updates.status")
    before = server.agent.memory("VmHWM")
    path = server.write("/var/tmp/huge.log", "")
    with path.open("r+b") as file:
        file.truncate(8 << 30)
        file.seek(0, os.SEEK_END)
        file.write(b"\nlast\n")
    server.path("/var/log/corvane").rmdir()
    server.mkdir("/var/log/corvane")
    server.symlink(LOG, "/var/tmp/huge.log")
    reply = server.request("updates.status")
    assert reply["log"] == "\0" * (65536 - len("\nlast\n")) + "\nlast\n"
    assert server.sanitized or server.agent.memory("VmHWM") - before < 4 << 20


@pytest.mark.parametrize("path", [LOG, FLAG_PACKAGES, AUTOMATIC])
@pytest.mark.parametrize("kind", ["fifo", "folder", "device", "dangling link"])
def test_status_reads_files_only(server, path, kind):
    target = server.path(path)
    target.parent.mkdir(parents=True, exist_ok=True)
    if kind == "fifo":
        os.mkfifo(target)
    elif kind == "folder":
        target.mkdir()
    elif kind == "device":
        target.symlink_to("/dev/zero")
    else:
        target.symlink_to("/nowhere")
    assert server.request("updates.status") == NOTHING


def test_status_ignores_its_arguments(server):
    assert server.request("updates.status", mode="all") == NOTHING


# Refresh


def test_refresh_reads_the_lists_and_touches_the_stamp(server):
    assert server.request("updates.refresh") == {"ok": True}
    assert server.argvs() == [RUNNING, REFRESH, TOUCH]


def test_refresh_moves_the_last_check(server):
    os.utime(server.write(STAMP), (0, 1700000000))
    server.answer("touch", ..., real=True)
    assert server.request("updates.refresh") == {"ok": True}
    assert server.request("updates.status")["lastCheck"] > 1700000000


def test_refresh_does_not_mind_a_stamp_that_cannot_be_touched(server):
    server.answer("touch", ..., exit=1, err="no such folder")
    assert server.request("updates.refresh") == {"ok": True}


@pytest.mark.parametrize("suite", SUITES)
def test_refresh_fails_as_apt_get_does(server, suite):
    answer = recorded(suite, "apt-get-update-broken")
    server.answer("apt-get", "update", "-q", **answer)
    assert server.request("updates.refresh") == {"ok": False, "error": failure("apt-get", answer)}
    assert server.argvs() == [RUNNING, REFRESH]


def test_refresh_ends_when_apt_get_hangs(impatient):
    idle(impatient).answer("apt-get", ..., hang=True)
    assert impatient.request("updates.refresh") == {"ok": False, "error": "apt-get: took too long"}


def test_refresh_is_refused_while_an_installation_runs(server):
    busy(server)
    assert server.request("updates.refresh") == {"ok": False, "error": "an update is running"}
    assert server.argvs() == [RUNNING]


# Install


@pytest.mark.parametrize("mode, command, what", [
    ("all", ALL, "all updates"), ("security", SECURITY, "security updates"),
])
def test_install_starts_a_unit_of_its_own(server, mode, command, what):
    before = datetime.datetime.now().replace(microsecond=0)
    assert server.request("updates.install", mode=mode) == {"ok": True}
    assert server.argvs() == [RUNNING, installation(command)]

    match = re.fullmatch(rf"== (\d{{4}}-\d\d-\d\dT\d\d:\d\d:\d\d) installing {what}\n", server.read(LOG))
    assert before <= datetime.datetime.fromisoformat(match[1]) <= datetime.datetime.now()
    assert server.entry(LOG) == "0644 root:root"


def test_install_logs_local_time(server):
    server.start(env={"TZ": "XYZ-13:37"})
    zone = datetime.timezone(datetime.timedelta(hours=13, minutes=37))
    before = datetime.datetime.now(zone).replace(microsecond=0, tzinfo=None)
    server.request("updates.install", mode="all")
    logged = datetime.datetime.fromisoformat(server.read(LOG).split()[1])
    assert before <= logged <= datetime.datetime.now(zone).replace(tzinfo=None)


def test_install_adds_to_the_log(server):
    server.write(LOG, "== finished (exit 0)\n", mode=0o600)
    server.request("updates.install", mode="all")
    server.request("updates.install", mode="security")
    assert re.sub(r"^== \d\S+ ", "== TIME ", server.read(LOG), flags=re.M).splitlines() == [
        "== finished (exit 0)", "== TIME installing all updates", "== TIME installing security updates",
    ]
    assert server.entry(LOG) == "0600 root:root"


def test_install_makes_the_log_s_folders(server):
    server.path("/var/log/corvane").rmdir()
    assert server.request("updates.install", mode="all") == {"ok": True}
    assert server.entry("/var/log/corvane") == "0755 root:root"
    assert server.entry(LOG) == "0644 root:root"


@pytest.mark.parametrize("kind", ["fifo", "folder", "file for its folder"])
def test_install_goes_on_without_a_log(server, kind):
    if kind == "fifo":
        os.mkfifo(server.path(LOG))
    elif kind == "folder":
        server.mkdir(LOG)
    else:
        server.path("/var/log/corvane").rmdir()
        server.write("/var/log/corvane", "")
    assert server.request("updates.install", mode="all") == {"ok": True}
    assert server.argvs() == [RUNNING, installation(ALL)]


@pytest.mark.parametrize("mode", ["Security", "ALL", "", " all", "all\n", "all\0", "full", None, 1, True, ["all"], {}])
def test_install_refuses_a_mode(server, mode):
    assert server.request("updates.install", mode=mode) == {"ok": False, "error": "mode: security or all"}
    assert server.argvs() == []
    assert not server.exists(LOG)


def test_install_refuses_a_missing_mode_before_it_looks(server):
    busy(server)
    assert server.request("updates.install") == {"ok": False, "error": "mode: security or all"}
    assert server.argvs() == []


def test_install_is_refused_while_an_installation_runs(server):
    busy(server)
    assert server.request("updates.install", mode="all") == {"ok": False, "error": "an update is already running"}
    assert server.argvs() == [RUNNING]
    assert not server.exists(LOG)


@pytest.mark.parametrize("suite", SUITES)
def test_install_fails_as_systemd_run_does_and_keeps_the_heading(server, suite):
    answer = recorded(suite, "systemd-run-again")
    server.answer("systemd-run", ..., **answer)
    assert server.request("updates.install", mode="all") == {"ok": False, "error": failure("systemd-run", answer)}
    assert server.read(LOG).endswith(" installing all updates\n")


# Automatic updates


@pytest.mark.parametrize("args, value", [
    ({"on": True}, 1), ({"on": False}, 0), ({}, 0), ({"on": None}, 0), ({"on": 1}, 0), ({"on": "true"}, 0), ({"on": [True]}, 0),
])
def test_automatic_writes_both_settings(server, args, value):
    assert server.request("updates.automatic", args) == {"ok": True}
    assert server.tree("/etc/apt/apt.conf.d") == {"20auto-upgrades": f"0644 root:root {settings(value)}"}
    assert server.argvs() == []
    assert server.request("updates.status")["automatic"] is bool(value)


def test_automatic_replaces_the_file_and_keeps_its_mode(server):
    server.write(AUTOMATIC, "old\n" * 1000, mode=0o600, owner="root:mail")
    assert server.request("updates.automatic", on=True) == {"ok": True}
    assert server.tree("/etc/apt/apt.conf.d") == {"20auto-upgrades": f"0600 root:mail {settings(1)}"}


def test_automatic_does_not_write_into_the_old_file(server):
    old = server.write(AUTOMATIC, "old\n")
    with old.open() as file:
        assert server.request("updates.automatic", on=True) == {"ok": True}
        assert file.read() == "old\n"


@pytest.mark.parametrize("hindrance", ["no folder", "folder in its place", "full disk"])
def test_automatic_says_that_it_cannot_write(server, hindrance):
    left = {}
    if hindrance == "no folder":
        server.path("/etc/apt/apt.conf.d").rmdir()
    elif hindrance == "folder in its place":
        server.mkdir(AUTOMATIC)
        left = {"20auto-upgrades": "0755 root:root"}
    else:
        server.small_disk("/etc/apt/apt.conf.d", "4k")
        server.write(AUTOMATIC, "old\n")
        left = {"20auto-upgrades": "0644 root:root old\n"}
    assert server.request("updates.automatic", on=True) == {"ok": False, "error": f"cannot write {AUTOMATIC}"}
    assert server.tree("/etc/apt/apt.conf.d") == left


# Restart


@pytest.mark.parametrize("confirm", ["web1", " web1 ", "\tweb1\n"])
def test_reboot_is_put_off_for_the_reply(server, confirm):
    server.start(hostname="web1")
    assert server.request("system.reboot", confirm=confirm) == {"ok": True}
    assert server.argvs() == [RUNNING, REBOOT]


@pytest.mark.parametrize("confirm", ["WEB1", "web", "web11", "", "web1.example.org", "web1\0", "we b1", None, 1, True, ["web1"]])
def test_reboot_refuses_another_name(server, confirm):
    server.start(hostname="web1")
    assert server.request("system.reboot", confirm=confirm) == {
        "ok": False, "error": "type the server's name to confirm",
    }
    assert server.argvs() == []


def test_reboot_refuses_a_missing_name(server):
    assert server.request("system.reboot") == {"ok": False, "error": "type the server's name to confirm"}


def test_reboot_is_refused_while_an_installation_runs(server):
    busy(server)
    assert server.request("system.reboot", confirm="sandbox") == {
        "ok": False, "error": "an update is running; restart when it has finished",
    }
    assert server.argvs() == [RUNNING]


def test_reboot_asks_for_the_name_first(server):
    busy(server)
    assert server.request("system.reboot", confirm="other") == {
        "ok": False, "error": "type the server's name to confirm",
    }
    assert server.argvs() == []


def test_reboot_fails_as_systemd_run_does(server):
    server.answer("systemd-run", ..., exit=1, err="Failed to start transient timer unit\n")
    assert server.request("system.reboot", confirm="sandbox") == {
        "ok": False, "error": "systemd-run failed: Failed to start transient timer unit",
    }
