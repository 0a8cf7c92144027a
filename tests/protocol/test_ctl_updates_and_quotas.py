"""corvctl: what has to be there before the agent's own work does any good, and what is done about it."""

import json
import os
import re

import pytest
from corvctl import PATH, corvctl, install

KERNEL = os.uname().release
PACKAGE = f"linux-modules-extra-{KERNEL}"
BUILTIN = f"/lib/modules/{KERNEL}/modules.builtin"
MODULES = f"/lib/modules/{KERNEL}/modules.dep"
ASKED = "agent: uid 0 ran quota.enable -> ok"


def lacks(sandbox, package):
    sandbox.answer("dpkg-query", "-W", "*", package, exit=1, err=f"dpkg-query: no packages found matching {package}\n")


@pytest.fixture
def automatic(sandbox):
    """A server with all that automatic updates need."""
    sandbox.answer("dpkg-query", out="install ok installed")
    sandbox.answer("systemctl", "show", "-p", "*", "apt-daily-upgrade.timer", out="LoadState=loaded\nActiveState=active\n")
    sandbox.start()
    return sandbox


def test_automatic_updates_are_not_switched_on_where_nothing_would_install_them(automatic):
    lacks(automatic, "unattended-upgrades")
    assert corvctl(automatic, "update", "automatic", "on") == (
        1, "", "corvctl: nothing would install the updates: the package unattended-upgrades is missing\n"
               "  apt-get install -y unattended-upgrades on the server, then this again\n")
    assert not automatic.exists("/etc/apt/apt.conf.d/20auto-upgrades")


def test_automatic_updates_are_switched_on_and_off(automatic):
    automatic.logs("agent: uid 0 ran updates.automatic -> ok", "agent: uid 0 ran updates.automatic -> ok")
    assert corvctl(automatic, "update", "automatic", "on") == (0, "automatic security updates are on\n", "")
    lacks(automatic, "unattended-upgrades")
    assert corvctl(automatic, "update", "automatic", "off") == (0, "automatic security updates are off\n", "")


def test_automatic_updates_without_their_timer_are_switched_on_with_a_word(automatic):
    automatic.logs("agent: uid 0 ran updates.automatic -> ok")
    automatic.answer("systemctl", "show", "-p", "*", "apt-daily-upgrade.timer", out="LoadState=masked\nActiveState=inactive\n")
    assert corvctl(automatic, "update", "automatic", "on") == (
        0, "automatic security updates are on\n",
        "corvctl: automatic security updates are on, but nothing starts them: apt-daily-upgrade.timer is off (systemctl unmask "
        "apt-daily-upgrade.timer && systemctl enable --now apt-daily-upgrade.timer)\n")


def test_the_state_of_updates_tells_a_switch_that_does_nothing(automatic):
    automatic.logs("agent: uid 0 ran updates.status -> ok")
    automatic.write("/etc/apt/apt.conf.d/20auto-upgrades", 'APT::Periodic::Unattended-Upgrade "1";\n')
    lacks(automatic, "unattended-upgrades")
    code, out, err = corvctl(automatic, "--plain", "update", "status")
    assert (code, err) == (0, "")
    assert dict(line.split("\t") for line in out.splitlines())["Automatic"] == (
        "automatic security updates are on, but nothing installs them: there is no package unattended-upgrades "
        "(apt-get install -y unattended-upgrades)")


@pytest.fixture
def debian(sandbox):
    """A server whose kernel has the module, and whose archive has no package of the name that enabling quotas installs."""
    sandbox.answer("findmnt", out="/ ext4\n")
    sandbox.answer("apt-cache", err=f"N: Unable to locate package {PACKAGE}\n")
    sandbox.answer("env", "DEBIAN_FRONTEND=noninteractive", "apt-get", ...)
    sandbox.answer("dpkg-deb", shell='mkdir -p /seen; stat -c "%a %U" "${3%/*}" "$3/DEBIAN" >/seen/modes; '
                                     'find "$3" -type f >/seen/files; cp "$3/DEBIAN/control" /seen/; echo deb >"$4"')
    sandbox.answer("dpkg", shell='cat "$2" >/seen/installed')
    sandbox.write(MODULES, "kernel/fs/quota/quota_tree.ko:\nkernel/fs/quota/quota_v2.ko.xz: kernel/fs/quota/quota_tree.ko.xz\n")
    sandbox.write("/etc/fstab", "UUID=1 / ext4 defaults 0 1\n")
    sandbox.start()
    return sandbox


def test_the_package_that_debian_has_not_is_made_and_installed(debian):
    debian.logs(ASKED)
    code, out, err = corvctl(debian, "quota", "enable")
    assert (code, err) == (0, f"corvctl: made and installed {PACKAGE}, an empty package: this kernel has quota_v2 itself\n")
    assert out.startswith("Quotas are on for  /\n")
    (build,) = debian.argvs("dpkg-deb")
    (put,) = debian.argvs("dpkg")
    folder = os.path.dirname(build[3])
    assert folder.startswith("/run/corvctl-")
    assert build == ["dpkg-deb", "--root-owner-group", "--build", f"{folder}/package", f"{folder}/package.deb"]
    assert put == ["dpkg", "--install", f"{folder}/package.deb"]
    assert debian.read("/seen/modes") == "700 root\n755 root\n"
    assert debian.read("/seen/files") == f"{folder}/package/DEBIAN/control\n"
    assert debian.read("/seen/control").startswith(f"Package: {PACKAGE}\nVersion: 1\nArchitecture: all\n")
    assert debian.read("/seen/installed") == "deb\n"
    assert not debian.exists(folder)
    names = [argv[0] for argv in debian.argvs()]
    assert names.index("dpkg") < names.index("env")


def test_a_module_that_is_built_in_will_do(debian):
    debian.logs(ASKED)
    debian.path(MODULES).unlink()
    debian.write(BUILTIN, "kernel/fs/ext4/ext4.ko\nkernel/fs/quota/quota_v2.ko\n")
    assert corvctl(debian, "quota", "enable")[0] == 0
    assert len(debian.argvs("dpkg")) == 1


def not_ext4(box):
    box.answer("findmnt", out="/ xfs\n")


def apt_knows_it(box):
    box.answer("apt-cache", out=f"Package: {PACKAGE}\n")


def it_is_installed(box):
    box.answer("dpkg-query", "-W", "*", PACKAGE, out="install ok installed")


def quotas_are_on(box):
    box.answer("dpkg-query", "-W", "*", "quota", out="install ok installed")
    box.answer("quotaon", out="user quota on / (/dev/sda1) is on\n")


def kernel_has_none(box):
    box.write(MODULES, "kernel/fs/quota/quota_v1.ko: kernel/fs/quota_v2.kos\n")


@pytest.mark.parametrize("how", [not_ext4, apt_knows_it, it_is_installed, quotas_are_on, kernel_has_none],
                         ids=lambda how: how.__name__)
def test_no_package_is_made_where_none_is_needed_or_none_would_help(debian, how):
    how(debian)
    debian.logs(ASKED if how is not not_ext4 else "agent: uid 0 ran quota.enable -> failed")
    corvctl(debian, "quota", "enable")
    assert debian.argvs("dpkg-deb", "dpkg") == []


def test_a_package_that_cannot_be_installed_is_told_and_the_agent_asked_all_the_same(debian):
    debian.logs(ASKED)
    debian.answer("dpkg", exit=2, err="dpkg: error: dpkg frontend lock was locked by another process\n")
    code, _, err = corvctl(debian, "quota", "enable")
    assert (code, err) == (0, "corvctl: the package that enabling quotas asks for could not be made: dpkg failed: dpkg: error: dpkg "
                              "frontend lock was locked by another process\n")


def test_a_request_that_is_only_printed_makes_nothing(debian):
    assert corvctl(debian, "-n", "quota", "enable") == (0, '{"cmd":"quota.enable"}\n', "")
    assert debian.argvs() == []


def test_only_the_package_is_made_for_a_corvctl_elsewhere(debian):
    assert corvctl(debian, "quota", "enable", "--prepare") == (
        0, f"made and installed {PACKAGE}, an empty package: this kernel has quota_v2 itself\n", "")
    assert not [argv for argv in debian.argvs() if argv[0] == "env"]


def test_a_package_that_is_not_needed_is_told_of(debian):
    it_is_installed(debian)
    assert corvctl(debian, "quota", "enable", "--prepare") == (0, "no package had to be made\n", "")
    assert corvctl(debian, "--json", "quota", "enable", "--prepare") == (0, '{"ok":true}\n', "")


NOT_MADE = "the package that enabling quotas asks for could not be made: dpkg failed: no room"


def test_a_package_that_could_not_be_made_is_a_failure(debian):
    debian.answer("dpkg", exit=2, err="no room\n")
    assert corvctl(debian, "quota", "enable", "--prepare") == (1, "", f"corvctl: {NOT_MADE}\n")
    assert corvctl(debian, "--json", "quota", "enable", "--prepare") == (
        1, json.dumps({"error": NOT_MADE, "ok": False}, separators=(",", ":")) + "\n", f"corvctl: {NOT_MADE}\n")


def test_no_package_is_made_by_a_user_or_for_a_request_that_is_only_printed(debian):
    install(debian)
    words = ["/usr/bin/setpriv", "--reuid=33", "--clear-groups", "corvctl", "quota", "enable", "--prepare"]
    assert debian.run(*words, env={"PATH": PATH}) == (
        3, "", "corvctl: packages are installed by root alone\n  run it as root: sudo corvctl quota enable --prepare\n")
    assert corvctl(debian, "-n", "quota", "enable", "--prepare") == (
        2, "", "corvctl: the package is made on the server itself, not by a request\n")
    assert debian.argvs() == []


# On another server, through an ssh that is a stand-in: it runs the command here.


@pytest.fixture
def over_ssh(debian):
    debian.answer("ssh", shell='shift 3; PATH=/standins/bin:$PATH exec "$@"')
    debian.allows_loose_calls("ssh")
    return debian


def test_the_package_is_made_on_the_other_server(over_ssh):
    over_ssh.logs(ASKED)
    code, _, err = corvctl(over_ssh, "-H", "web1", "quota", "enable")
    assert (code, err) == (0, f"corvctl: made and installed {PACKAGE}, an empty package: this kernel has quota_v2 itself\n")
    assert over_ssh.argvs("ssh") == [
        ["ssh", "-T", "--", "web1", "corvctl", "quota", "enable", "--prepare", "--plain"],
        ["ssh", "-T", "--", "web1", "corvctl", "proxy"]]


def test_a_server_whose_corvctl_makes_no_packages_is_asked_all_the_same(over_ssh):
    over_ssh.logs(ASKED)
    over_ssh.answer("ssh", "-T", "--", "web1", "corvctl", "quota", ..., exit=2, err="--prepare: no such option\n")
    assert corvctl(over_ssh, "-H", "web1", "quota", "enable")[0] == 0
    assert over_ssh.argvs("dpkg") == []


def test_a_package_that_could_not_be_made_there_is_a_failure_and_enabling_tells_it(over_ssh):
    over_ssh.answer("dpkg", exit=2, err="no room\n")
    said = re.compile(fr"corvctl: web1: (sh: .+ )?corvctl: {NOT_MADE}\n")
    code, out, err = corvctl(over_ssh, "-H", "web1", "quota", "enable", "--prepare")
    assert (code, out) == (1, "") and said.fullmatch(err), err
    over_ssh.logs(ASKED)
    code, _, err = corvctl(over_ssh, "-H", "web1", "quota", "enable")
    assert code == 0 and said.fullmatch(err), err


@pytest.mark.parametrize("answer, problem", [
    ({"exit": 255, "err": "ssh: connect to host web1 port 22: No route to host\n"},
     "web1: ssh: connect to host web1 port 22: No route to host"),
    ({"out": ""}, "nothing there tells whether a package is missing"),  # a key that is good for the proxy alone
], ids=["not reached", "not told"])
def test_a_server_that_was_not_prepared_is_not_called_prepared(over_ssh, answer, problem):
    over_ssh.answer("ssh", **answer)
    assert corvctl(over_ssh, "-H", "web1", "quota", "enable", "--prepare") == (3, "", f"corvctl: {problem}\n")


def test_what_is_not_needed_on_the_other_server_is_not_told_of(over_ssh):
    it_is_installed(over_ssh)
    over_ssh.logs(ASKED)
    code, _, err = corvctl(over_ssh, "-H", "web1", "quota", "enable")
    assert (code, err) == (0, "")


@pytest.mark.parametrize("answer, code", [
    ({"out": "Package: unattended-upgrades\nStatus: install ok installed\nPriority: optional\n"}, 0),
    ({"out": "Package: unattended-upgrades\nStatus: deinstall ok config-files\n"}, 1),
    ({"exit": 1, "err": "dpkg-query: package 'unattended-upgrades' is not installed and no information is available\n"}, 1),
    ({"out": ""}, 0),  # a key that is good for the proxy alone
], ids=["installed", "removed", "unknown", "not told"])
def test_automatic_updates_of_another_server_need_their_package_there(over_ssh, answer, code):
    if code == 0:
        over_ssh.logs("agent: uid 0 ran updates.automatic -> ok")
    over_ssh.answer("ssh", "-T", "--", "web1", "dpkg-query", "-s", "unattended-upgrades", **answer)
    assert corvctl(over_ssh, "-H", "web1", "update", "automatic", "on")[0] == code
