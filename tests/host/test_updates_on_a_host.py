"""Real updates out of the host's own repository, installed in a unit of their own while the agent goes on or is restarted."""

import re
import time
from contextlib import contextmanager

import pytest

LIMIT = 180

STAMP = "/var/lib/apt/periodic/update-success-stamp"
LOG = "/var/log/corvane/upgrade.log"
HOOK = "/etc/apt/apt.conf.d/99hold"
# Debian's own settings let unattended-upgrade install what a new point release of the suite brings as well.
SECURITY_ONLY = """\
#clear Unattended-Upgrade::Origins-Pattern;
Unattended-Upgrade::Origins-Pattern {"origin=Debian,codename=${distro_codename}-security,label=Debian-Security";};
"""


@pytest.fixture(scope="module")
def host(boot):
    """A host of its own, which has unattended-upgrades and is up to date but for what the tests publish."""
    host = boot()
    host.ok(["apt-get", "install", "-yq", "unattended-upgrades"], env={"DEBIAN_FRONTEND": "noninteractive"})
    assert host.request("updates.status")["packages"] == []
    return host


@contextmanager
def holding(host):
    """A block in which every installation waits, before dpkg is begun, until the given function is called."""
    host.put(HOOK, 'DPkg::Pre-Invoke {"touch /run/holding; until [ -e /run/go ]; do sleep 0.05; done";};\n')
    try:
        yield lambda: host.put("/run/go", "")
    finally:
        host.put("/run/go", "")
        host.wait_for(lambda: not host.active("corv-upgrade"), "the installation's end", timeout=120)
        host.ok(["rm", "-f", HOOK, "/run/go", "/run/holding"])


def status(host):
    return host.request("updates.status")


def publish_updates(host, *names):
    """Has each package installed in version 1, and version 2 in the repository; a name with "secure" among security updates."""
    for name in names:
        host.publish(name, "1", install=True)
        host.publish(name, "2", security="secure" in name)


def version(host, name):
    return host.ok(["dpkg-query", "-W", "-f=${Version}", name])


def wait_for_end(host):
    host.wait_for(lambda: not status(host)["running"], "the installation's end", timeout=120)
    return status(host)["log"].splitlines()


def update(name, secure):
    return {"name": name, "to": "2", "from": "1", "security": secure}


@pytest.mark.core
def test_status_shows_updates_and_which_of_them_are_for_security(host):
    publish_updates(host, "shown-plain", "shown-secure")
    reply = status(host)
    assert reply["packages"] == [update("shown-plain", False), update("shown-secure", True)]
    assert (reply["ok"], reply["updates"], reply["security"]) == (True, 2, 1)
    assert (reply["running"], reply["hostname"], reply["rebootRequired"], reply["rebootPackages"]) == (False, "web1", False, [])
    assert status(host)["packages"] == host_packages(host)
    host.ok(["apt-get", "install", "-yq", "shown-plain", "shown-secure"])


def host_packages(host):
    """What apt lists, read another way."""
    found = []
    for line in host.ok(["apt-get", "-s", "dist-upgrade"]).splitlines():
        match = re.fullmatch(r"Inst (\S+) \[(\S+)\] \((\S+) (.*) \[all\]\)", line)
        if match:
            found.append({"name": match[1], "to": match[3], "from": match[2], "security": "-security" in match[4]})
    return sorted(found, key=lambda entry: entry["name"])


@pytest.mark.core
def test_refresh_finds_new_packages_and_moves_the_last_check(host):
    host.publish("fresh", "1", install=True)
    host.publish("fresh", "2")
    host.ok(["sh", "-c", "rm -r /var/lib/apt/lists/*"])
    host.ok(["touch", "-d", "@1700000000", STAMP])
    assert (status(host)["packages"], status(host)["lastCheck"]) == ([], 1700000000)
    began = int(time.time())
    assert host.request("updates.refresh") == {"ok": True}
    reply = status(host)
    assert reply["packages"] == [update("fresh", False)]
    assert began <= reply["lastCheck"] <= time.time()
    host.ok(["apt-get", "install", "-yq", "fresh"])


def test_a_refresh_that_fails_leaves_the_last_check(host):
    host.ok(["touch", "-d", "@1700000000", STAMP])
    host.put("/etc/apt/sources.list.d/broken.list", "deb [trusted=yes] file:/nowhere none main\n")
    reply = host.request("updates.refresh")
    host.ok(["rm", "/etc/apt/sources.list.d/broken.list"])
    assert reply["ok"] is False
    assert reply["error"].startswith("apt-get failed: ")
    assert status(host)["lastCheck"] == 1700000000


def test_a_host_that_never_refreshed_has_no_last_check(host):
    host.ok(["rm", "-f", STAMP])
    assert status(host)["lastCheck"] is None


@pytest.mark.core
def test_security_updates_are_installed_alone(host):
    host.put("/etc/apt/apt.conf.d/60security-only", SECURITY_ONLY)
    publish_updates(host, "alone-plain", "alone-secure")
    assert host.request("updates.install", mode="security") == {"ok": True}
    log = wait_for_end(host)
    assert log[-1] == "== finished (exit 0)"
    assert (version(host, "alone-plain"), version(host, "alone-secure")) == ("1", "2")
    assert status(host)["packages"] == [update("alone-plain", False)]
    assert " installing security updates\n" in host.get(LOG)
    host.ok(["apt-get", "install", "-yq", "alone-plain"])


@pytest.mark.core
def test_all_updates_are_installed_and_what_nothing_needs_any_more_goes(host):
    publish_updates(host, "every-plain", "every-secure")
    host.publish("every-part", "1", install=True)
    host.ok(["apt-mark", "auto", "every-part"])
    assert host.request("updates.install", mode="all") == {"ok": True}
    log = wait_for_end(host)
    assert log[-1] == "== finished (exit 0)"
    assert (version(host, "every-plain"), version(host, "every-secure")) == ("2", "2")
    assert status(host)["packages"] == []
    assert host.run(["dpkg-query", "-W", "every-part"]).code == 1


@pytest.mark.parametrize("mode", ["all", "security"])
def test_an_installation_runs_in_its_own_unit_and_keeps_everything_else_out(host, mode):
    name = f"held-secure-{mode}"
    publish_updates(host, name)
    with holding(host) as go_on:
        assert host.request("updates.install", mode=mode) == {"ok": True}
        host.wait_for(lambda: host.exists("/run/holding"), "the installation's beginning", timeout=60)
        unit = dict(line.split("=", 1) for line in host.ok(
            ["systemctl", "show", "-pMainPID", "-pControlGroup", "-pActiveState", "corv-upgrade"]).splitlines())
        assert (unit["ControlGroup"], unit["ActiveState"]) == ("/system.slice/corv-upgrade.service", "active")
        assert status(host)["running"] is True
        assert_all_refused(host)

        host.ok(["systemctl", "restart", "corv-agent"])
        assert host.ok(["systemctl", "show", "-pMainPID", "corv-upgrade"]).strip() == f"MainPID={unit['MainPID']}"
        assert status(host)["running"] is True
        assert version(host, name) == "1"
        go_on()
        assert wait_for_end(host)[-1] == "== finished (exit 0)"
    assert version(host, name) == "2"
    assert host.run(["systemctl", "status", "corv-upgrade"]).code == 4  # systemd has forgotten it


def assert_all_refused(host):
    """What must not begin while an installation runs."""
    for command, args, message in [
        ("updates.install", {"mode": "all"}, "an update is already running"),
        ("updates.install", {"mode": "security"}, "an update is already running"),
        ("updates.refresh", {}, "an update is running"),
        ("system.reboot", {"confirm": "web1"}, "an update is running; restart when it has finished"),
        ("system.reboot", {"confirm": "web2"}, "type the server's name to confirm"),
    ]:
        assert host.request(command, **args) == {"ok": False, "error": message}


@pytest.mark.core
def test_an_installation_that_fails_says_so_in_the_log_and_can_be_tried_again(host):
    host.put("/etc/apt/sources.list.d/broken.list", "deb [trusted=yes] file:/nowhere none main\n")
    assert host.request("updates.install", mode="all") == {"ok": True}
    assert wait_for_end(host)[-1] == "== finished (exit 100)"
    host.ok(["rm", "/etc/apt/sources.list.d/broken.list"])
    assert host.request("updates.install", mode="all") == {"ok": True}
    assert wait_for_end(host)[-1] == "== finished (exit 0)"


def test_a_unit_of_that_name_from_elsewhere_keeps_installations_out(host):
    host.ok(["systemd-run", "--quiet", "--collect", "--unit=corv-upgrade", "sleep", "infinity"])
    assert status(host)["running"] is True
    assert host.request("updates.install", mode="all") == {"ok": False, "error": "an update is already running"}
    host.ok(["systemctl", "stop", "corv-upgrade"])
    assert status(host)["running"] is False


def test_changed_settings_of_a_package_survive_its_update(host):
    host.publish("settled", "1", files={"/etc/settled.conf": "one\n", "/DEBIAN/conffiles": "/etc/settled.conf\n"}, install=True)
    host.put("/etc/settled.conf", "mine\n")
    host.publish("settled", "2", files={"/etc/settled.conf": "two\n", "/DEBIAN/conffiles": "/etc/settled.conf\n"})
    assert host.request("updates.install", mode="all") == {"ok": True}
    assert wait_for_end(host)[-1] == "== finished (exit 0)"
    assert version(host, "settled") == "2"
    assert host.get("/etc/settled.conf") == "mine\n"


@pytest.mark.parametrize("on, value", [(True, "1"), (False, "0"), (True, "1")])
def test_apt_reads_automatic_updates_as_they_were_switched(host, on, value):
    assert host.request("updates.automatic", on=on) == {"ok": True}
    assert status(host)["automatic"] is on
    assert sorted(host.ok(["apt-config", "dump", "APT::Periodic"]).splitlines()) == [
        'APT::Periodic "";',
        f'APT::Periodic::Unattended-Upgrade "{value}";',
        'APT::Periodic::Update-Package-Lists "1";',
    ]


def test_a_pending_restart_shows_with_its_packages(host):
    host.put("/run/reboot-required", "*** System restart required ***\n")
    host.put("/run/reboot-required.pkgs", "dbus\nlinux-image\ndbus\n")
    reply = status(host)
    host.ok(["rm", "/run/reboot-required", "/run/reboot-required.pkgs"])
    assert (reply["rebootRequired"], reply["rebootPackages"]) == (True, ["dbus", "linux-image"])


def test_a_restart_is_scheduled_for_after_the_reply(boot):
    host = boot()
    assert host.request("system.reboot", confirm="WEB1") == {"ok": False, "error": "type the server's name to confirm"}
    assert host.ok(["systemctl", "list-units", "--all", "--plain", "--no-legend", "run-*.timer"]) == ""
    host.put("/run/systemd/system/reboot.target.d/never.conf", "[Unit]\nRefuseManualStart=yes\n")
    host.ok(["systemctl", "daemon-reload"])
    assert host.request("system.reboot", confirm=" web1 ") == {"ok": True}
    timer = host.ok(["systemctl", "list-units", "--all", "--plain", "--no-legend", "run-*.timer"]).split()[0]
    service = timer.replace(".timer", ".service")
    assert "argv[]=/usr/bin/systemctl reboot ;" in host.ok(["systemctl", "show", "-pExecStart", service])
    host.stop()
