"""Host facts, disks, the state of services and their restart."""

import os
import subprocess

import pytest

from ground import MS_BIND, mount
from programs import wait_until

MIB = 1048576
SHOW = ["systemctl", "show", "--no-pager", "-p", "Id,LoadState,ActiveState,SubState,ActiveEnterTimestamp,MemoryCurrent"]
CONFIGTEST = ["apache2ctl", "configtest"]
BROKEN_APACHE = "Apache's configuration has an error, so it was not restarted: "
TOO_LONG = "restart is taking longer than 30 seconds; check the service"


def uptime():
    with open("/proc/uptime") as file:
        return float(file.read().split()[0])


def replace(sandbox, inside, content):
    """Puts a file over one that cannot be written, in the running agent's sight."""
    mount(sandbox.write("/tmp/replaced", content), sandbox.path(inside), None, MS_BIND)


def timer(name):
    return ["systemd-run", "--no-ask-password", "--quiet", "--collect", "--on-active=1",
            "--timer-property=AccuracySec=100ms", "systemctl", "restart", name]


def restart(name):
    return ["systemctl", "--no-ask-password", "restart", name]


def failure(message):
    return {"ok": False, "error": message}


# system.info


def test_tells_what_the_host_is(sandbox):
    before = int(uptime())
    reply = sandbox.request("system.info", anything=1)
    assert before <= reply.pop("uptimeSeconds") <= int(uptime())
    assert reply == {
        "ok": True,
        "hostname": "sandbox",
        "os": "Debian GNU/Linux 12 (bookworm)",
        "kernel": os.uname().release,
        "cpus": os.cpu_count(),
    }
    assert sandbox.argvs() == []


@pytest.mark.parametrize("text, seconds", [
    ("12345.67 999.00\n", 12345),
    ("12345.99\n", 12345),
    ("0.99 1.00\n", 0),
    ("soon 1.00\n", 0),
    (" 12345.67 1.00\n", 0),
    ("", 0),
])
def test_uptime_is_the_first_field_without_its_fraction(sandbox, text, seconds):
    sandbox.start()
    replace(sandbox, "/proc/uptime", text)
    assert sandbox.request("system.info")["uptimeSeconds"] == seconds


def test_uptime_that_cannot_be_read_is_0(sandbox):
    sandbox.start()
    sandbox.small_disk("/mnt/empty")
    mount(sandbox.path("/mnt/empty"), sandbox.path("/proc"), None, MS_BIND)
    reply = sandbox.request("system.info")
    assert (reply["ok"], reply["uptimeSeconds"]) == (True, 0)
    subprocess.run(["umount", sandbox.path("/proc")], check=True)


# system.disks


@pytest.fixture
def disk(sandbox):
    """A function that mounts a real file system at a folder of the sandbox."""
    def add(inside):
        image = sandbox.top / "disk"
        with image.open("wb") as file:
            file.truncate(8 * MIB)
        subprocess.run(["mke2fs", "-q", "-t", "ext4", "-F", image], check=True)
        sandbox.mkdir(inside)
        subprocess.run(["mount", "-o", "loop", image, sandbox.path(inside)], check=True)
        return inside
    return add


def source_of(path):
    done = subprocess.run(["findmnt", "-n", "-o", "SOURCE", path], capture_output=True, text=True, check=True)
    return done.stdout.split("[")[0].strip()


def test_memory_and_composed_file_systems_are_no_disks(sandbox):
    assert sandbox.request("system.disks") == {"ok": True, "disks": []}
    assert sandbox.argvs() == []


def test_lists_a_disk_with_its_sizes(sandbox, disk):
    path = sandbox.path(disk("/mnt/data"))
    sizes = os.statvfs(path)
    assert sandbox.request("system.disks") == {"ok": True, "disks": [{
        "mount": "/mnt/data",
        "device": source_of(path),
        "type": "ext4",
        "total": sizes.f_blocks * sizes.f_frsize,
        "avail": sizes.f_bavail * sizes.f_frsize,
    }]}


def test_lists_a_disk_at_each_place_where_it_is_mounted(sandbox, disk):
    first = sandbox.path(disk("/mnt/data"))
    mount(first, sandbox.mkdir("/srv/again and again"), None, MS_BIND)
    disks = sandbox.request("system.disks")["disks"]
    assert [entry["mount"] for entry in disks] == ["/mnt/data", "/srv/again and again"]
    assert {entry["device"] for entry in disks} == {source_of(first)}


@pytest.mark.parametrize("place, listed", [
    ("/run/user/1000/doc", False),
    ("/snap/core/1", False),
    ("/snapshots", True),
    ("/srv/run/x", True),
])
def test_what_snaps_and_sessions_mount_is_left_out(sandbox, disk, place, listed):
    disk(place)
    assert [entry["mount"] for entry in sandbox.request("system.disks")["disks"]] == [place] * listed


@pytest.fixture
def dead_share(sandbox):
    """A function that mounts what nobody answers for at a folder of the sandbox: whoever asks it waits until the test's end."""
    ends = []
    def add(inside):
        ends.append((os.open("/dev/fuse", os.O_RDWR), sandbox.mkdir(inside)))
        mount("server:/share", ends[-1][1], "fuse", 0, f"fd={ends[-1][0]},rootmode=40000,user_id=0,group_id=0")
    yield add
    for descriptor, folder in ends:
        os.close(descriptor)
        subprocess.run(["umount", "-l", folder], check=True)


def test_a_share_whose_server_is_gone_holds_up_nobody(sandbox, disk, dead_share):
    sandbox.start()
    disk("/mnt/data")
    dead_share("/mnt/share")
    for _ in range(3):
        assert [entry["mount"] for entry in sandbox.request("system.disks")["disks"]] == ["/mnt/data"]
        assert sandbox.request("ping")["ok"]
    assert sandbox.stop() == 0


def test_shares_are_told_again_when_they_answer(sandbox, disk, dead_share):
    sandbox.start()
    disk("/mnt/data")
    dead_share("/mnt/share")
    sandbox.request("system.disks")
    subprocess.run(["umount", "-f", sandbox.path("/mnt/share")], check=True)
    mount(sandbox.path("/mnt/data"), sandbox.path("/mnt/share"), None, MS_BIND)
    wait_until(lambda: len(sandbox.request("system.disks")["disks"]) == 2, "both disks")


def test_backups_on_a_share_whose_server_is_gone_hold_up_nobody(sandbox, dead_share):
    sandbox.settings(backup_destination="/mnt/share/backups")
    sandbox.add_account("alice")
    dead_share("/mnt/share")
    reply = sandbox.request("backup.status")
    assert (reply["ok"], reply["backups"], reply["freeBytes"]) == (True, [], -1)
    request = {"username": "alice", "backup": "2026-01-05_031500"}
    assert sandbox.request("backup.restore", **request, what="files")["error"] == "that backup has no files for alice"
    assert sandbox.request("ping")["ok"]


# services.status


def test_shows_the_services_under_their_configured_names(sandbox):
    sandbox.settings(health_services='" web , ,db "')
    sandbox.answer("systemctl", out="""\
MemoryCurrent=[not set]
Id=apache2.service
LoadState=loaded
ActiveState=active
SubState=running
ActiveEnterTimestamp=Mon 2026-01-05 10:00:00 UTC

MemoryCurrent=4096
Id=db.service
LoadState=not-found
ActiveState=inactive
SubState=dead
ActiveEnterTimestamp=
""")
    assert sandbox.request("services.status") == {"ok": True, "services": [
        {"name": "web", "loaded": True, "active": True, "sub": "running", "since": 1767607200, "memory": 0},
        {"name": "db", "loaded": False, "active": False, "sub": "dead", "memory": 4096},
    ]}
    assert sandbox.argvs() == [[*SHOW, "web", "db"]]


def test_watches_apache_and_postgresql_unless_told_otherwise(sandbox):
    sandbox.answer("systemctl", out="SubState=a\n\nSubState=b\n")
    assert sandbox.request("services.status") == {
        "ok": True, "services": [{"name": "apache2", "sub": "a"}, {"name": "postgresql", "sub": "b"}]}
    assert sandbox.argvs() == [[*SHOW, "apache2", "postgresql"]]


def test_service_names_may_begin_with_an_at_sign(sandbox):
    sandbox.settings(health_services="apache2,@x")
    sandbox.answer("systemctl", out="SubState=a\n\nSubState=b\n")
    assert sandbox.request("services.status")["services"] == [{"name": "apache2", "sub": "a"}, {"name": "@x", "sub": "b"}]


def test_asks_nothing_without_services(sandbox):
    sandbox.settings(health_services="")
    assert sandbox.request("services.status") == {"ok": True, "services": []}
    assert sandbox.argvs() == []


def test_takes_the_output_of_a_failing_systemctl(sandbox):
    sandbox.settings(health_services="web")
    sandbox.answer("systemctl", out="SubState=dead\n", err="Failed", exit=4)
    assert sandbox.request("services.status") == {"ok": True, "services": [{"name": "web", "sub": "dead"}]}


def test_has_no_status_without_systemctl(sandbox):
    sandbox.remove_standin("systemctl")
    assert sandbox.request("services.status") == {"ok": True, "services": []}


def test_tells_what_a_hanging_systemctl_wrote_and_ends_it(impatient):
    impatient.settings(health_services="web,db")
    impatient.answer("systemctl", out="SubState=running\n\nSubSt", hang=True)
    assert impatient.request("services.status") == {"ok": True, "services": [{"name": "web", "sub": "running"}]}
    wait_until(lambda: impatient.agent.others() == [], "the end of what the tool left")


def test_reads_times_in_the_agents_own_zone(sandbox):
    sandbox.settings(health_services="web")
    sandbox.answer("systemctl", out="ActiveEnterTimestamp=Mon 2026-01-05 10:00:00 CET\n")
    sandbox.start(env={"TZ": "Europe/Berlin"})
    assert sandbox.request("services.status") == {"ok": True, "services": [{"name": "web", "since": 1767603600}]}


# services.restart


@pytest.mark.parametrize("name", ["cron", "Web", "web.service", "", None, 1, ["web"]])
def test_restarts_listed_services_alone(sandbox, name):
    sandbox.settings(health_services="web,apache2")
    assert sandbox.request("services.restart", name=name) == failure(
        "that service is not on the [health] services list")
    assert sandbox.argvs() == []


def test_restarts_a_service_and_waits_for_it(sandbox):
    sandbox.settings(health_services="web")
    assert sandbox.request("services.restart", name="web") == {"ok": True, "queued": False}
    assert sandbox.argvs() == [restart("web")]


@pytest.mark.parametrize("name", ["corv-agent", "corv-"])
def test_restarts_the_panels_own_units_a_second_later(sandbox, name):
    sandbox.settings(health_services=name)
    assert sandbox.request("services.restart", name=name) == {"ok": True, "queued": True}
    assert sandbox.argvs() == [timer(name)]


@pytest.mark.parametrize("name", ["apache2", "httpd"])
def test_restarts_apache_a_second_later_when_its_configuration_is_valid(sandbox, name):
    sandbox.settings(health_services=name)
    sandbox.answer("apache2ctl", err="Syntax OK\n")
    assert sandbox.request("services.restart", name=name) == {"ok": True, "queued": True}
    assert sandbox.argvs() == [CONFIGTEST, timer(name)]


@pytest.mark.parametrize("errors, detail", [
    ("  line 1: wrong\n", "line 1: wrong"),
    ("", ""),
    ("x" * 10 + "y" * 300, "y" * 300),
    ("x" * 300 + "\n", "x" * 300),
    ("x" + "é" * 300, "é" * 300),
])
def test_a_broken_apache_configuration_keeps_the_server_running(sandbox, errors, detail):
    sandbox.answer("apache2ctl", out="never shown", err=errors, exit=1)
    assert sandbox.request("services.restart", name="apache2") == failure(BROKEN_APACHE + detail)
    assert sandbox.argvs() == [CONFIGTEST]


def test_a_killed_configuration_test_counts_as_failed(sandbox):
    sandbox.answer("apache2ctl", err="half", signal=9)
    assert sandbox.request("services.restart", name="apache2") == failure(BROKEN_APACHE + "half")


def test_a_missing_configuration_test_counts_as_failed(sandbox):
    sandbox.remove_standin("apache2ctl")
    assert sandbox.request("services.restart", name="apache2") == failure(BROKEN_APACHE)
    assert sandbox.argvs() == []


def test_a_hanging_configuration_test_is_ended(impatient):
    impatient.answer("apache2ctl", err="slow\n", hang=True)
    assert impatient.request("services.restart", name="apache2") == failure(BROKEN_APACHE + "slow")
    assert impatient.argvs() == [CONFIGTEST]
    wait_until(lambda: impatient.agent.others() == [], "the end of what the tool left")


@pytest.mark.parametrize(
    "name, tool", [("postgresql", "systemctl"), ("corv-web", "systemd-run"), ("httpd", "systemd-run")])
@pytest.mark.parametrize("errors, message", [
    ("", "systemctl failed"),
    (" \n", "systemctl failed"),
    ("\n Job failed. \n", "Job failed."),
    ("x" * 300 + "y", "x" * 300),
])
def test_a_failed_restart_is_told_by_its_beginning(sandbox, name, tool, errors, message):
    sandbox.settings(health_services=name)
    sandbox.answer(tool, out="never shown", err=errors, exit=1)
    assert sandbox.request("services.restart", name=name) == failure(message)


def test_a_killed_restart_counts_as_failed(sandbox):
    sandbox.answer("systemctl", signal=15)
    assert sandbox.request("services.restart", name="postgresql") == failure("systemctl failed")


@pytest.mark.parametrize("name, tool", [("postgresql", "systemctl"), ("corv-web", "systemd-run")])
def test_a_restart_that_hangs_is_ended(impatient, name, tool):
    impatient.settings(health_services=name)
    impatient.answer(tool, err="so far", hang=True)
    assert impatient.request("services.restart", name=name) == failure(TOO_LONG)
    wait_until(lambda: impatient.agent.others() == [], "the end of what the tool left")


def test_what_a_hanging_restart_started_is_ended_with_it(impatient):
    impatient.answer("systemctl", shell="sleep 1000 & wait")
    assert impatient.request("services.restart", name="postgresql") == failure(TOO_LONG)
    wait_until(lambda: impatient.agent.others() == [], "the end of what the tool left")


@pytest.mark.parametrize("name, tool", [("postgresql", "systemctl"), ("corv-web", "systemd-run")])
def test_a_restart_that_cannot_be_started_is_told_as_one_that_takes_too_long(sandbox, name, tool):
    sandbox.settings(health_services=name)
    sandbox.remove_standin(tool)
    assert sandbox.request("services.restart", name=name) == failure(TOO_LONG)


def test_a_restart_waits_on_no_input(sandbox):
    sandbox.request("services.restart", name="postgresql")
    (call,) = sandbox.calls("systemctl")
    assert call.stdin == b""
    assert call.sid == call.pid
