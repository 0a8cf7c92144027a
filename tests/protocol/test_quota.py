"""Disk quotas: what they are asked and told, and what becomes of /etc/fstab."""

import datetime
import os
import re

import pytest

from ground import MS_BIND, mount

FINDMNT = ["findmnt", "-n", "-o", "TARGET,FSTYPE", "-T", "/home"]
QUOTA_INSTALLED = ["dpkg-query", "-W", "-f=${Status}", "quota"]
VIRTUAL_INSTALLED = ["dpkg-query", "-W", "-f=${Status}", "linux-image-virtual"]
KERNEL_PACKAGE = f"linux-modules-extra-{os.uname().release}"
INSTALL = ["env", "DEBIAN_FRONTEND=noninteractive", "apt-get", "install", "-yq", "quota", KERNEL_PACKAGE]
MODPROBE = ["modprobe", "quota_v2"]

OLD = "# static file system information\nUUID=0a3407de / ext4 errors=remount-ro 0 1\n"
NEW = ("# static file system information\n"
       "UUID=0a3407de\t/\text4\terrors=remount-ro,usrjquota=aquota.user,jqfmt=vfsv1\t0\t1\n")
HAS_OPTIONS = "UUID=0a3407de  /  ext4  usrjquota=quota.user,jqfmt=vfsv0  0  1\n"

XFS = "XFS needs the uquota mount option, which on the root filesystem means a reboot; not automated yet"
OTHERS = "hard quotas are automated for ext4 only so far"


def quotaon_asked(point="/"):
    return ["quotaon", "-p", "-u", point]


def switch_on(point="/"):
    return [["mount", "-o", "remount", point], ["quotacheck", "-cum", point], ["quotaon", "-u", point]]


BEFORE_FSTAB = [FINDMNT, QUOTA_INSTALLED, VIRTUAL_INSTALLED, INSTALL, MODPROBE]


@pytest.fixture
def server(sandbox):
    """A server whose /home lies on an ext4 root file system, without quotas."""
    return prepare(sandbox)


def prepare(sandbox, point="/", kind="ext4"):
    sandbox.add_standin("env")
    sandbox.answer("findmnt", out=f"{point} {kind}\n")
    sandbox.answer("dpkg-query", exit=1, err="dpkg-query: no packages found matching\n")
    sandbox.write("/etc/fstab", OLD)
    return sandbox


def install_tools(sandbox):
    sandbox.answer("dpkg-query", "-W", "-f=${Status}", "quota", out="install ok installed")


def turn_on(sandbox, point="/"):
    install_tools(sandbox)
    sandbox.answer("quotaon", "-p", ..., out=f"user quota on {point} (/dev/vda1) is on\n", exit=1)


def turn_off(sandbox, point="/"):
    install_tools(sandbox)
    sandbox.answer("quotaon", "-p", ..., out=f"user quota on {point} (/dev/vda1) is off\n")


def backups(sandbox):
    return sorted(name for name in os.listdir(sandbox.path("/etc")) if name.startswith("fstab."))


def fstab_entries(sandbox):
    """Whatever of /etc has to do with the file: a temporary one would show here."""
    return sorted(name for name in os.listdir(sandbox.path("/etc")) if "fstab" in name)


# quota.status


def status(sandbox, **args):
    return sandbox.request("quota.status", args)


def test_status_of_a_server_with_quotas_on(server):
    turn_on(server)
    assert status(server) == {"ok": True, "mount": "/", "fsType": "ext4", "supported": True, "enabled": True}
    assert server.argvs() == [FINDMNT, QUOTA_INSTALLED, FINDMNT, quotaon_asked()]


def test_status_of_a_server_with_quotas_off(server):
    turn_off(server)
    assert status(server) == {"ok": True, "mount": "/", "fsType": "ext4", "supported": True, "enabled": False}
    assert server.argvs() == [FINDMNT, QUOTA_INSTALLED, FINDMNT, quotaon_asked()]


def test_status_does_not_ask_tools_that_are_not_installed(server):
    assert status(server) == {"ok": True, "mount": "/", "fsType": "ext4", "supported": True, "enabled": False}
    assert server.argvs() == [FINDMNT, QUOTA_INSTALLED]


@pytest.mark.parametrize("kind, reason", [("xfs", XFS), ("btrfs", OTHERS), ("ext3", OTHERS), ("EXT4", OTHERS)])
def test_status_says_why_a_file_system_is_not_supported(sandbox, kind, reason):
    prepare(sandbox, "/home", kind)
    assert status(sandbox) == {"ok": True, "mount": "/home", "fsType": kind, "supported": False, "enabled": False,
                               "reason": reason}


def test_status_shows_quotas_of_a_file_system_that_is_not_supported(sandbox):
    prepare(sandbox, "/home", "xfs")
    turn_on(sandbox, "/home")
    assert status(sandbox) == {"ok": True, "mount": "/home", "fsType": "xfs", "supported": False, "enabled": True,
                               "reason": XFS}
    assert sandbox.argvs() == [FINDMNT, QUOTA_INSTALLED, FINDMNT, quotaon_asked("/home")]


@pytest.mark.parametrize("answer", [dict(out=""), dict(exit=1, err="findmnt: can't find\n"), dict(signal=9)])
def test_status_without_a_mount_has_empty_fields(server, answer):
    server.answer("findmnt", **answer)
    turn_off(server)
    assert status(server) == {"ok": True, "mount": "", "fsType": "", "supported": False, "enabled": False,
                              "reason": OTHERS}
    assert server.argvs() == [FINDMNT, QUOTA_INSTALLED, FINDMNT, quotaon_asked("")]


@pytest.mark.parametrize("tool", ["findmnt", "dpkg-query", "quotaon"])
def test_status_never_fails_for_want_of_a_tool(server, tool):
    turn_on(server)
    server.remove_standin(tool)
    point, kind = ("", "") if tool == "findmnt" else ("/", "ext4")
    expected = {"ok": True, "mount": point, "fsType": kind, "supported": kind == "ext4",
                "enabled": tool == "findmnt"}
    if tool == "findmnt":
        expected["reason"] = OTHERS
    assert status(server) == expected


def test_status_believes_the_output_of_findmnt_whatever_its_exit(server):
    server.answer("findmnt", out="  /home \t ext4  \n", exit=32)
    assert status(server)["mount"] == "/home"
    assert status(server)["fsType"] == "ext4"


@pytest.mark.parametrize("text, installed", [
    ("install ok installed", True),
    (" install ok installed\n", True),
    ("deinstall ok config-files", False),
    ("install ok half-configured", False),
    ("Install ok installed", False),
    ("install  ok installed", False),
    ("install ok installedinstall ok installed", False),
    ("", False),
])
def test_a_package_counts_as_installed_by_its_exact_status(server, text, installed):
    turn_on(server)
    server.answer("dpkg-query", out=text, exit=1)
    assert status(server)["enabled"] is installed
    assert (quotaon_asked() in server.argvs()) is installed


@pytest.mark.parametrize("text, on", [("user quota on / (/dev/vda1) is on", True), ("is ON", False),
                                      ("is o\nn", False)])
def test_quotas_are_on_where_the_output_says_so(server, text, on):
    install_tools(server)
    server.answer("quotaon", out=text)
    assert status(server)["enabled"] is on


def test_quotas_that_the_error_output_names_do_not_count(server):
    install_tools(server)
    server.answer("quotaon", err="user quota is on\n")
    assert status(server)["enabled"] is False


def test_status_reads_no_arguments(server):
    turn_on(server)
    assert status(server, mount="/srv", username="x") == status(server)


# quota.enable


def enable(sandbox, **args):
    return sandbox.request("quota.enable", args)


def test_enabling_installs_edits_remounts_checks_and_turns_on(server):
    began = datetime.datetime.utcnow().replace(microsecond=0)
    reply = enable(server)
    ended = datetime.datetime.utcnow()

    (backup,) = backups(server)
    assert reply == {"ok": True, "mount": "/", "fstabBackup": f"/etc/{backup}"}
    assert server.argvs() == BEFORE_FSTAB + switch_on()
    assert server.read("/etc/fstab") == NEW
    assert server.read(f"/etc/{backup}") == OLD
    assert re.fullmatch(r"fstab\.corv-\d{8}-\d{6}", backup)
    assert began <= datetime.datetime.strptime(backup, "fstab.corv-%Y%m%d-%H%M%S") <= ended
    assert fstab_entries(server) == ["fstab", backup]


def test_enabling_changes_the_file_before_the_first_remount_and_not_again(server):
    for tool in ("mount", "quotacheck", "quotaon"):
        server.answer(tool, shell=f"/usr/bin/cat /etc/fstab >/tmp/{tool}; /usr/bin/cat /etc/fstab.* >/tmp/{tool}.old")
    server.answer("modprobe", shell="/usr/bin/cat /etc/fstab >/tmp/modprobe; /usr/bin/ls /etc/fstab.* >>/tmp/modprobe")
    assert enable(server)["ok"] is False  # the stand-in for modprobe found no copy yet
    server.answer("modprobe")
    assert enable(server)["ok"] is True
    assert server.read("/tmp/modprobe") == OLD
    for tool in ("mount", "quotacheck", "quotaon"):
        assert server.read(f"/tmp/{tool}") == NEW
        assert server.read(f"/tmp/{tool}.old") == OLD


def test_enabling_where_the_tools_are_installed_but_off(server):
    turn_off(server)
    assert enable(server)["ok"] is True
    assert server.argvs() == [FINDMNT, QUOTA_INSTALLED, FINDMNT, quotaon_asked(), VIRTUAL_INSTALLED, INSTALL, MODPROBE,
                              *switch_on()]


def test_enabling_again_runs_only_the_probes(server):
    turn_on(server)
    assert enable(server) == {"ok": True, "already": True}
    assert server.argvs() == [FINDMNT, QUOTA_INSTALLED, FINDMNT, quotaon_asked()]
    assert server.read("/etc/fstab") == OLD
    assert backups(server) == []


def test_enabling_with_the_virtual_kernel_installs_its_modules(server):
    server.answer("dpkg-query", *VIRTUAL_INSTALLED[1:], out="install ok installed")
    assert enable(server)["ok"] is True
    assert server.argvs("env") == [INSTALL + ["linux-image-extra-virtual"]]


def test_a_failing_installation_names_all_packages(server):
    server.answer("dpkg-query", *VIRTUAL_INSTALLED[1:], out="install ok installed")
    server.answer("env", exit=100, err="E: Unable to locate package\n")
    packages = f"quota, {KERNEL_PACKAGE}, linux-image-extra-virtual"
    assert enable(server) == {"ok": False, "error": f"installing {packages} failed: "
                                                    "env failed: E: Unable to locate package"}
    assert server.argvs()[-1] == INSTALL + ["linux-image-extra-virtual"]
    assert fstab_entries(server) == ["fstab"]


def test_enabling_a_home_file_system_of_its_own(sandbox):
    prepare(sandbox, "/home")
    sandbox.write("/etc/fstab", OLD + "/dev/vdb /home ext4 defaults")
    reply = enable(sandbox)
    (backup,) = backups(sandbox)
    assert reply == {"ok": True, "mount": "/home", "fstabBackup": f"/etc/{backup}"}
    assert sandbox.argvs()[-3:] == switch_on("/home")
    assert sandbox.read("/etc/fstab") == OLD + "/dev/vdb\t/home\text4\tdefaults,usrjquota=aquota.user,jqfmt=vfsv1"


@pytest.mark.parametrize("kind, reason", [("xfs", XFS), ("btrfs", OTHERS), ("", OTHERS)])
def test_enabling_changes_nothing_on_other_file_systems(sandbox, kind, reason):
    prepare(sandbox, "/", kind)
    assert enable(sandbox) == {"ok": False, "error": reason}
    assert {argv[0] for argv in sandbox.argvs()} <= {"findmnt", "dpkg-query"}
    assert fstab_entries(sandbox) == ["fstab"]
    assert sandbox.read("/etc/fstab") == OLD


def test_enabling_has_a_reason_also_when_findmnt_fails_only_at_first(server):
    server.answer("findmnt", exit=1, call=1)
    assert enable(server) == {"ok": False, "error": OTHERS}
    assert server.read("/etc/fstab") == OLD


def test_enabling_names_the_reason_that_the_status_has(sandbox):
    prepare(sandbox, "/", "xfs")
    sandbox.answer("findmnt", out="/ btrfs\n", call=1)
    assert enable(sandbox) == {"ok": False, "error": XFS}


@pytest.mark.parametrize("how, message", [
    (dict(exit=1, err=" modprobe: FATAL: Module quota_v2 not found\n"),
     "modprobe failed: modprobe: FATAL: Module quota_v2 not found"),
    (dict(exit=1), "modprobe failed: exit code 1"),
])
def test_a_module_that_cannot_be_loaded_leaves_the_file_alone(server, how, message):
    server.answer("modprobe", **how)
    assert enable(server) == {"ok": False, "error": message}
    assert server.argvs() == BEFORE_FSTAB
    assert fstab_entries(server) == ["fstab"]


@pytest.mark.parametrize("tool, message", [
    ("env", f"installing quota, {KERNEL_PACKAGE} failed: env: cannot start"),
    ("modprobe", "modprobe: cannot start"),
    ("mount", "mount: cannot start (/etc/fstab restored)"),
    ("quotacheck", "quotacheck: cannot start (/etc/fstab restored)"),
    ("quotaon", "quotaon: cannot start (/etc/fstab restored)"),
])
def test_enabling_without_a_tool_says_which(server, tool, message):
    server.remove_standin(tool)
    assert enable(server) == {"ok": False, "error": message}
    assert server.read("/etc/fstab") == OLD


STEPS = ["mount", "quotacheck", "quotaon"]


@pytest.mark.parametrize("step", STEPS)
@pytest.mark.parametrize("how, message", [
    (dict(exit=3, err="first\n  second  \n"), "first\n  second"),
    (dict(exit=3), "exit code 3"),
])
def test_a_failing_step_restores_the_file_and_remounts(server, step, how, message):
    server.answer(step, **how)
    if step == "mount":
        server.answer("mount", call=2)
    done = switch_on()[:STEPS.index(step) + 1]

    assert enable(server) == {"ok": False, "error": f"{step} failed: {message} (/etc/fstab restored)"}

    assert server.argvs() == BEFORE_FSTAB + done + [["mount", "-o", "remount", "/"]]
    assert server.read("/etc/fstab") == OLD
    (backup,) = backups(server)
    assert server.read(f"/etc/{backup}") == OLD
    assert fstab_entries(server) == ["fstab", backup]


def test_the_file_is_restored_before_the_last_remount(server):
    server.answer("quotacheck", exit=1)
    server.answer("mount", shell="/usr/bin/cat /etc/fstab; /usr/bin/cat /etc/fstab >/tmp/seen", call=2)
    enable(server)
    assert server.read("/tmp/seen") == OLD


def test_a_failing_last_remount_is_not_reported(server):
    server.answer("mount", exit=32, err="busy\n")
    assert enable(server) == {"ok": False, "error": "mount failed: busy (/etc/fstab restored)"}
    assert server.argvs("mount") == [["mount", "-o", "remount", "/"]] * 2


@pytest.mark.parametrize("step", ["quotacheck", "quotaon"])
def test_a_step_that_never_ends_restores_the_file(impatient, step):
    prepare(impatient)
    impatient.answer(step, hang=True)
    assert enable(impatient) == {"ok": False, "error": f"{step}: took too long (/etc/fstab restored)"}
    assert impatient.read("/etc/fstab") == OLD


def test_the_file_comes_back_even_if_a_step_removed_it(server):
    server.answer("quotacheck", shell="/usr/bin/rm /etc/fstab; exit 1")
    assert enable(server)["error"] == "quotacheck failed: exit code 1 (/etc/fstab restored)"
    assert server.read("/etc/fstab") == OLD


def test_a_line_with_quota_options_is_left_alone(server):
    server.write("/etc/fstab", HAS_OPTIONS)
    assert enable(server) == {"ok": True, "mount": "/"}
    assert server.argvs() == BEFORE_FSTAB + switch_on()
    assert server.read("/etc/fstab") == HAS_OPTIONS
    assert fstab_entries(server) == ["fstab"]


@pytest.mark.parametrize("step", STEPS)
def test_a_failing_step_restores_nothing_where_nothing_was_changed(server, step):
    server.write("/etc/fstab", HAS_OPTIONS)
    server.answer(step, exit=1, err="no\n")
    assert enable(server) == {"ok": False, "error": f"{step} failed: no"}
    assert server.argvs() == BEFORE_FSTAB + switch_on()[:STEPS.index(step) + 1]
    assert server.read("/etc/fstab") == HAS_OPTIONS
    assert fstab_entries(server) == ["fstab"]


@pytest.mark.parametrize("fails", [False, True])
def test_owner_and_mode_of_the_file_stay(server, fails):
    server.write("/etc/fstab", OLD, mode=0o640, owner="mail:shadow")
    if fails:
        server.answer("quotacheck", exit=1)
    enable(server)
    assert server.entry("/etc/fstab") == "0640 mail:shadow"
    (backup,) = backups(server)
    assert server.entry(f"/etc/{backup}") == "0640 root:root"


def test_a_reader_finds_the_old_file_or_the_new_one(server):
    with server.path("/etc/fstab").open() as old:
        enable(server)
        assert old.read() == OLD
    assert server.read("/etc/fstab") == NEW


def test_a_linked_file_stays_where_it_is_kept(server):
    server.write("/srv/fstab", OLD)
    server.path("/etc/fstab").unlink()
    server.symlink("/etc/fstab", "/srv/fstab")
    assert enable(server)["ok"] is True
    assert server.entry("/etc/fstab") == "link -> /srv/fstab"
    assert server.read("/srv/fstab") == NEW


@pytest.mark.parametrize("text, edited", [
    (b"a / ext4 defaults", b"a\t/\text4\tdefaults,usrjquota=aquota.user,jqfmt=vfsv1"),
    (b"a / ext4 defaults\r\nb /b ext4 ro\r\n",
     b"a\t/\text4\tdefaults,usrjquota=aquota.user,jqfmt=vfsv1\nb /b ext4 ro\r\n"),
    (b"a / ext4 ro\na / ext4 rw\n", b"a\t/\text4\tro,usrjquota=aquota.user,jqfmt=vfsv1\na / ext4 rw\n"),
    (b"# caf\xe9\n\xff / ext4 ro\n\xa0\x85",
     b"# caf\xe9\n\xff\t/\text4\tro,usrjquota=aquota.user,jqfmt=vfsv1\n\xa0\x85"),
    (b"#a / ext4 ro\n / / ext4\n/ a b c\nb / c d e f g\n",
     b"#a / ext4 ro\n / / ext4\n/ a b c\nb\t/\tc\td,usrjquota=aquota.user,jqfmt=vfsv1\te\tf\tg\n"),
])
def test_only_the_options_of_the_line_change(server, text, edited):
    server.write("/etc/fstab", text)
    assert enable(server)["ok"] is True
    assert server.path("/etc/fstab").read_bytes() == edited
    (backup,) = backups(server)
    assert server.path(f"/etc/{backup}").read_bytes() == text


@pytest.mark.parametrize("text", ["", "\n", "# a / ext4 ro 0 1\n", "a / ext4\n", "a /x ext4 ro\n", "a // ext4 ro\n"])
def test_a_file_without_the_line_is_refused(server, text):
    server.write("/etc/fstab", text)
    assert enable(server) == {"ok": False,
                              "error": "/etc/fstab has no line for /; add quota options there by hand"}
    assert server.argvs() == BEFORE_FSTAB
    assert server.read("/etc/fstab") == text
    assert fstab_entries(server) == ["fstab"]


@pytest.mark.parametrize("folder", [False, True])
def test_a_file_that_cannot_be_read_is_an_error(server, folder):
    server.path("/etc/fstab").unlink()
    if folder:
        server.mkdir("/etc/fstab")
    assert enable(server) == {"ok": False, "error": "cannot read /etc/fstab"}
    assert server.argvs() == BEFORE_FSTAB
    assert backups(server) == []


def test_without_a_copy_the_file_is_not_touched(server):
    now = datetime.datetime.utcnow()
    names = [(now + datetime.timedelta(seconds=s)).strftime("fstab.corv-%Y%m%d-%H%M%S") for s in range(300)]
    for name in names:
        server.mkdir(f"/etc/{name}")
    assert enable(server) == {"ok": False, "error": "cannot back up /etc/fstab"}
    assert server.argvs() == BEFORE_FSTAB
    assert server.read("/etc/fstab") == OLD
    assert fstab_entries(server) == ["fstab", *names]


def test_a_file_that_cannot_be_replaced_stays_as_it_was(server):
    server.write("/srv/fstab", OLD)
    mount(server.path("/srv/fstab"), server.path("/etc/fstab"), None, MS_BIND)
    server.start()
    assert enable(server) == {"ok": False, "error": "cannot write /etc/fstab"}
    assert server.argvs() == BEFORE_FSTAB
    assert server.read("/etc/fstab") == OLD
    (backup,) = backups(server)
    assert fstab_entries(server) == ["fstab", backup]


def test_a_full_disk_leaves_the_old_file_whole_and_nothing_else(server):
    server.small_disk("/srv", "4k")
    text = OLD + "#" * (4096 - len(OLD))
    server.write("/srv/fstab", text)
    server.path("/etc/fstab").unlink()
    server.symlink("/etc/fstab", "/srv/fstab")
    assert enable(server) == {"ok": False, "error": "cannot write /etc/fstab"}
    assert server.read("/srv/fstab") == text
    assert os.listdir(server.path("/srv")) == ["fstab"]


# quota.set


@pytest.fixture
def limited(server):
    """A server with quotas on and the account alice."""
    server.add_account("alice")
    turn_on(server)
    return server


def set_limit(sandbox, **args):
    return sandbox.request("quota.set", {"username": "alice", **args})


PROBES = [FINDMNT, quotaon_asked()]


@pytest.mark.parametrize("mb, soft, hard", [
    (0, 0, 0),
    (1, 921, 1024),
    (3, 2764, 3072),
    (1000, 921600, 1024000),
    (104857600, 96636764160, 107374182400),
    (1000.0, 921600, 1024000),
    (2.5, 0, 0),
    (-1.5, 0, 0),
    (True, 0, 0),
    ("1000", 0, 0),
    (None, 0, 0),
    ([1000], 0, 0),
])
def test_a_limit_is_set_in_blocks(limited, mb, soft, hard):
    assert set_limit(limited, mb=mb) == {"ok": True}
    assert limited.argvs() == [*PROBES, FINDMNT, ["setquota", "-u", "alice", str(soft), str(hard), "0", "0", "/"]]


def test_without_a_number_the_limit_is_lifted(limited):
    assert set_limit(limited) == {"ok": True}
    assert limited.argvs("setquota") == [["setquota", "-u", "alice", "0", "0", "0", "0", "/"]]


@pytest.mark.parametrize("mb", ["-1", "-1.0", "104857601", "104857600.5", "1e10", "1e300", "-1e300", "4294967296",
                                "9223372036854775807", "-9223372036854775808", "18446744073709551616", "1e18"])
def test_a_limit_out_of_range_sets_nothing(limited, mb):
    with limited.connect() as client:
        client.send(b'{"cmd":"quota.set","args":{"username":"alice","mb":%s}}\n' % mb.encode())
        reply = limited.took("quota.set", client.reply())
    assert reply == {"ok": False, "error": "limit out of range"}
    assert limited.argvs() == PROBES


@pytest.mark.parametrize("name", ["bob", "mail", "root", "Alice", "alice\n", "", "-u", None, 7])
def test_a_limit_is_set_for_accounts_only(limited, name):
    limited.add_user("bob")
    shown = name if isinstance(name, str) else ""
    assert limited.request("quota.set", username=name, mb=10) == {"ok": False,
                                                                  "error": f"no Corvane account named '{shown}'"}
    assert limited.argvs() == []


def test_a_limit_needs_quotas_that_are_on(limited):
    turn_off(limited)
    assert set_limit(limited, mb=-1) == {"ok": False, "error": "hard quotas are off"}
    assert limited.argvs() == PROBES


def test_a_limit_does_not_ask_for_the_package(limited):
    limited.answer("dpkg-query", exit=1)
    assert set_limit(limited, mb=1) == {"ok": True}
    assert limited.argvs("dpkg-query") == []


@pytest.mark.parametrize("how, message", [
    (dict(exit=1, err="setquota: Cannot set quota for user alice\n"),
     "setquota failed: setquota: Cannot set quota for user alice"),
    (dict(exit=2), "setquota failed: exit code 2"),
])
def test_a_limit_that_the_tool_refuses_is_an_error(limited, how, message):
    limited.answer("setquota", **how)
    assert set_limit(limited, mb=10) == {"ok": False, "error": message}


def test_a_limit_without_the_tool_is_an_error(limited):
    limited.remove_standin("setquota")
    assert set_limit(limited, mb=10) == {"ok": False, "error": "setquota: cannot start"}


def test_a_limit_goes_to_the_file_system_of_the_homes(sandbox):
    prepare(sandbox, "/home")
    turn_on(sandbox, "/home")
    sandbox.add_account("alice")
    assert set_limit(sandbox, mb=5) == {"ok": True}
    assert sandbox.argvs() == [FINDMNT, quotaon_asked("/home"), FINDMNT,
                               ["setquota", "-u", "alice", "4608", "5120", "0", "0", "/home"]]


# The usage report with quotas on


def usage(sandbox, **args):
    return sandbox.request("hosting.usage", args)


REPORT = """\
*** Report for user quotas on device /dev/vda1
Block grace time: 7days; Inode grace time: 7days
                        Block limits                File limits
User            used    soft    hard  grace    used  soft  hard  grace
----------------------------------------------------------------------
"""


def report(*lines):
    return REPORT + "".join(line + "\n" for line in lines) + "\n\n"


def test_the_usage_names_accounts_alone(limited):
    alice, bob = limited.uid("alice"), limited.add_user("bob")
    carol = limited.add_account("carol", "carol.example")
    limited.answer("repquota", out=report(
        "#0        --  861236       0       0          21523     0     0",
        f"#{carol} --      16       0       0              4     0     0",
        f"#{alice} +-   10240    9216   10240  6days      13     0     0",
        f"#{bob} --       4       0       0              1     0     0",
        "#4711     --       4       0       0              1     0     0",
    ))
    assert usage(limited) == {"ok": True, "usage": {"alice": 10485760, "carol": 16384}}
    assert limited.argvs() == [*PROBES, FINDMNT, ["repquota", "-u", "-n", "/"]]


def test_the_usage_without_quota_data_is_empty(limited):
    limited.answer("repquota", out=report())
    assert usage(limited) == {"ok": True, "usage": {}}


def test_the_last_line_of_an_account_counts(limited):
    alice = limited.uid("alice")
    limited.answer("repquota", out=f"#{alice} -- 1 0 0\n#{alice} -- 2 0 0\n")
    assert usage(limited) == {"ok": True, "usage": {"alice": 2048}}


@pytest.mark.parametrize("line", ["alice -- 5 0 0", "#alice -- 5 0 0", "{uid} -- 5 0 0", "#{uid} --",
                                  "#-{uid} -- 5 0 0", "##{uid} -- 5 0 0", "#{uid}x -- 5 0 0", "x #{uid} -- 5 0 0"])
def test_lines_that_name_no_uid_are_skipped(limited, line):
    limited.answer("repquota", out=line.format(uid=limited.uid("alice")) + "\n")
    assert usage(limited) == {"ok": True, "usage": {}}


def test_white_space_of_any_kind_and_a_missing_last_line_feed_do_not_matter(limited):
    limited.answer("repquota", out=f"\n \t#{limited.uid('alice')}\t \t-- \t 7")
    assert usage(limited) == {"ok": True, "usage": {"alice": 7168}}


def test_the_first_user_of_a_shared_uid_decides(limited):
    shared = limited.add_user("bob")
    limited.add_user("carol", "Corvane account,carol.example", uid=shared, group=False)
    limited.add_user("dave", "Corvane account,dave.example", uid=limited.uid("alice"), group=False)
    limited.answer("repquota", out=report(f"#{shared} -- 5 0 0", f"#{limited.uid('alice')} -- 6 0 0"))
    assert usage(limited) == {"ok": True, "usage": {"alice": 6144}}


@pytest.mark.parametrize("how, message", [
    (dict(exit=1, err="repquota: Cannot open quotafile\n", out="#1000 -- 5 0 0\n"),
     "repquota failed: repquota: Cannot open quotafile"),
    (dict(exit=1), "repquota failed: exit code 1"),
])
def test_a_failing_report_is_an_error(limited, how, message):
    limited.answer("repquota", **how)
    assert usage(limited) == {"ok": False, "error": message}


def test_a_missing_report_tool_is_an_error(limited):
    limited.remove_standin("repquota")
    assert usage(limited) == {"ok": False, "error": "repquota: cannot start"}


def test_the_usage_of_a_home_file_system_of_its_own(sandbox):
    prepare(sandbox, "/home")
    turn_on(sandbox, "/home")
    sandbox.answer("repquota", out=report(f"#{sandbox.add_account('alice')} -- 1 0 0"))
    assert usage(sandbox) == {"ok": True, "usage": {"alice": 1024}}
    assert sandbox.argvs("repquota") == [["repquota", "-u", "-n", "/home"]]
