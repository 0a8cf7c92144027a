"""Backups on a disk of their own that is not mounted: the run fails and somebody is told, and the disk below stays empty."""

import pytest

LIMIT = 240
SETTINGS = "/etc/corvane/corvane.ini"
UNIT = "corv-backup.service"
KEPT = f"/var/lib/corvane/failures/{UNIT}"
POINT = "/mnt/backups"


@pytest.fixture(scope="module")
def host(boot):
    """A host of its own whose backups go to a mount point."""
    host = boot()
    host.put(SETTINGS, host.get(SETTINGS).replace(
        "[backup]\n", f"[backup]\ndestination={POINT}/auto\nrequire_mount={POINT}\n"))
    return host


def plan(host, line):
    """What /etc/fstab has for the point, made known to systemd."""
    host.ok(["systemctl", "stop", "corv-verify.service"])  # what reads the backup behind a run
    host.run(["umount", POINT])
    host.ok(["rm", "-rf", KEPT, POINT])
    host.put("/etc/fstab", line)
    host.ok(["systemctl", "daemon-reload"])
    host.run(["systemctl", "reset-failed"])


def start(host):
    began = host.mark()
    code = host.run(["systemctl", "start", UNIT]).code
    return code, host.journal("corv-backup", began)


def told(host):
    host.wait_for(lambda: host.exists(KEPT), "the telling")
    return host.get(KEPT)


def nothing_was_written(host):
    return host.run(["sh", "-c", f"find {POINT} -mindepth 1 2>/dev/null"]).out == ""


def test_a_disk_that_is_not_mounted_fails_the_run(host):
    plan(host, "")
    code, journal = start(host)
    assert code == 1
    assert f"corvctl: {POINT} is not mounted, so no backup is made: it would fill the disk below\n" in journal
    assert told(host) == f"web1: {UNIT} failed (exit-code); corvctl doctor and journalctl -u {UNIT} tell more\n"
    assert nothing_was_written(host)
    done = host.run(["corvctl", "backup", "mounted"])
    assert (done.code, done.out, done.err.splitlines()[1]) == (1, "", f"  mount {POINT}")
    assert f"backups go to {POINT}/auto, but what should be mounted at {POINT} is not" in host.run(["corvctl", "doctor"]).out


def test_a_mount_that_fails_fails_the_run(host):
    plan(host, f"nosuchfs {POINT} nosuchfs defaults 0 0\n")
    code, journal = start(host)
    assert code == 1
    assert "corvctl" not in journal  # it did not come to that
    assert told(host) == f"web1: {UNIT} failed (dependency); corvctl doctor and journalctl -u {UNIT} tell more\n"
    assert nothing_was_written(host)


def test_a_mount_that_waits_for_the_run_is_made_by_it(host):
    plan(host, f"tmpfs {POINT} tmpfs noauto,mode=0700 0 0\n")
    assert host.run(["mountpoint", "-q", POINT]).code != 0
    code, _ = start(host)
    assert code == 0
    assert host.run(["mountpoint", "-q", POINT]).code == 0
    assert len([name for name in host.ok(["ls", f"{POINT}/auto"]).split() if name[-1].isdigit()]) == 1
    assert host.ok(["corvctl", "backup", "mounted"]) == f"{POINT} is mounted\n"
    assert not host.exists(KEPT)


def test_a_setting_that_cannot_be_meant_fails_the_run(host):
    plan(host, "")
    usual = host.get(SETTINGS)
    host.put(SETTINGS, usual.replace(f"require_mount={POINT}", "require_mount=/srv"))
    try:
        assert host.run(["corvctl", "backup", "mounted"]).err.splitlines()[0] == (
            f"corvctl: the setting require_mount says /srv, but backups go to {POINT}/auto, which is not below it")
        assert start(host)[0] == 1
    finally:
        host.put(SETTINGS, usual)


def test_without_the_setting_systemd_is_told_nothing(host):
    usual = host.get(SETTINGS)
    assert f"RequiresMountsFor=\"{POINT}\"" in host.ok(["systemctl", "cat", UNIT])
    host.put(SETTINGS, usual.replace(f"require_mount={POINT}\n", ""))
    host.ok(["systemctl", "daemon-reload"])
    try:
        assert "RequiresMountsFor" not in host.ok(["systemctl", "cat", UNIT])
        assert host.run(["corvctl", "backup", "mounted"]).code == 0
    finally:
        host.put(SETTINGS, usual)
        host.ok(["systemctl", "daemon-reload"])
