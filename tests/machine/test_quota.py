"""Disk quotas on a real file system: what stops a write, what survives, what is put back."""

import json
import re

import pytest
from machinefloor import fill, limits, uid

MIB = 1024 * 1024


@pytest.fixture(scope="module")
def neighbour(machine):
    """An account without a limit until the last test, which deletes it."""
    return machine.account()


def used(machine, account):
    """The bytes of all files of the account, once they are on the disk: what is not yet is not counted either."""
    machine.ok(["sync"])
    script = 'find / -xdev -user "$1" -printf "%i %k\\n" | sort -u | cut -d " " -f 2'
    return sum(int(kib) for kib in machine.ok(["sh", "-c", script, "sh", account.name]).split()) * 1024


def fstab_entries(machine):
    return sorted(name for name in machine.ok(["ls", "-A", "/etc"]).split() if "fstab" in name)


def set_limit(machine, account, mb):
    return machine.request("quota.set", username=account.name, mb=mb)


def test_without_the_tools_quotas_are_off(machine):
    assert machine.run(["which", "quotaon"]).code == 1
    assert machine.request("quota.status") == {"ok": True, "mount": "/", "fsType": "ext4", "supported": True,
                                               "enabled": False}


@pytest.mark.turn
def test_the_agent_alone_does_not_get_a_package_that_debian_has_not(machine):
    """What corvctl has to do before it; this is what the panel is told."""
    reply = machine.request("quota.enable")
    assert reply["ok"] is False
    assert "linux-modules-extra-" in reply["error"]
    done = machine.run(["corvctl", "doctor", "--plain"])
    assert ("note\tquotas\tdisk quotas are off: nothing keeps one account from filling the disk\tcorvctl quota enable"
            in done.out.splitlines())


def test_the_package_that_debian_has_not_is_made_by_the_client(machine):
    """Nothing was prepared: the machine's repository has no such package."""
    kernel = machine.ok(["uname", "-r"]).strip()
    done = machine.run(["corvctl", "quota", "enable", "--prepare"])
    assert (done.code, done.err) == (0, "")
    assert done.out == (f"made and installed linux-modules-extra-{kernel}, an empty package: this kernel has quota_v2 itself\n")
    package = ["dpkg-query", "-W", "-f", "${Version} ${Architecture} ${Status}", f"linux-modules-extra-{kernel}"]
    assert machine.ok(package) == "1 all install ok installed"
    assert machine.ok(["dpkg", "-L", f"linux-modules-extra-{kernel}"]).strip() in ("", "/.")
    assert machine.ok(["sh", "-c", "ls -d /run/corvctl-* 2>/dev/null || true"]) == ""
    machine.ok(["dpkg", "--purge", f"linux-modules-extra-{kernel}"])


@pytest.mark.turn
def test_a_failing_check_puts_the_old_fstab_back(machine):
    old = machine.get("/etc/fstab")
    before = fstab_entries(machine)
    uuid = re.fullmatch(r"UUID=(\S+) / ext4 errors=remount-ro 0 1\n", old).group(1)
    with machine.stand_in("quotacheck", "cp /etc/fstab /run/stand-ins/seen; echo 'disk on fire' >&2; exit 4"):
        done = machine.run(["corvctl", "quota", "enable"])
        seen = machine.get("/run/stand-ins/seen")
    assert (done.code, done.out) == (1, "")
    made, failed = done.err.splitlines()
    assert re.fullmatch(r"corvctl: made and installed linux-modules-extra-\S+, an empty package: this kernel has quota_v2 itself",
                        made)
    assert failed == "corvctl: quotacheck failed: disk on fire (/etc/fstab restored)"
    assert seen == f"UUID={uuid}\t/\text4\terrors=remount-ro,usrjquota=aquota.user,jqfmt=vfsv1\t0\t1\n"
    assert machine.get("/etc/fstab") == old
    assert machine.mode("/etc/fstab") == "644 root root"
    (backup,) = set(fstab_entries(machine)) - set(before)
    assert re.fullmatch(r"fstab\.corv-\d{8}-\d{6}", backup)
    assert machine.get(f"/etc/{backup}") == old
    assert machine.request("quota.status")["enabled"] is False


def test_enabling_switches_quotas_on(machine):
    machine.ok(["corvctl", "quota", "enable", "--prepare"])
    old = machine.get("/etc/fstab")
    before = fstab_entries(machine)
    done = machine.run(["corvctl", "quota", "enable"])
    (backup,) = set(fstab_entries(machine)) - set(before)
    assert (done.code, done.out, done.err) == (0, f"Quotas are on for  /\nOld /etc/fstab     /etc/{backup}\n", "")
    assert machine.get(f"/etc/{backup}") == old
    assert machine.get("/etc/fstab") == (old.replace(" ", "\t")
                                         .replace("remount-ro", "remount-ro,usrjquota=aquota.user,jqfmt=vfsv1"))
    options = machine.ok(["findmnt", "-n", "-o", "OPTIONS", "/"]).strip().split(",")
    assert {"usrjquota=aquota.user", "jqfmt=vfsv1"} <= set(options)
    assert machine.request("quota.status") == {"ok": True, "mount": "/", "fsType": "ext4", "supported": True,
                                               "enabled": True}


def test_enabling_again_changes_nothing(quotas):
    before = quotas.get("/etc/fstab"), fstab_entries(quotas)
    assert quotas.request("quota.enable") == {"ok": True, "already": True}
    assert (quotas.get("/etc/fstab"), fstab_entries(quotas)) == before


def test_a_limit_stops_a_write_and_no_other_account(quotas, tenant, neighbour):
    assert set_limit(quotas, tenant, 6) == {"ok": True}
    assert limits(quotas, uid(quotas, tenant)) == (5529, 6144)

    done = fill(quotas, tenant, 8)
    assert done.code == 1
    assert "Disk quota exceeded" in done.err
    assert 5 * MIB < int(quotas.ok(["stat", "-c", "%s", f"{tenant.home}/big"])) < 6 * MIB
    assert fill(quotas, neighbour, 8).code == 0


def test_a_higher_limit_lets_the_account_write_on(quotas, tenant):
    assert set_limit(quotas, tenant, 10) == {"ok": True}
    assert fill(quotas, tenant, 8).code == 0
    assert fill(quotas, tenant, 12).code == 1


def test_the_usage_is_what_the_file_system_counts(quotas, tenant, neighbour):
    expected = {each.name: used(quotas, each) for each in (tenant, neighbour)}
    assert min(expected.values()) > 5 * MIB
    assert quotas.request("hosting.usage") == {"ok": True, "usage": expected}


@pytest.mark.parametrize("mb", [-1, 104857601, 1e10, 1e300])
def test_a_limit_out_of_range_leaves_the_old_one(quotas, tenant, mb):
    assert set_limit(quotas, tenant, 10) == {"ok": True}
    assert set_limit(quotas, tenant, mb) == {"ok": False, "error": "limit out of range"}
    assert limits(quotas, uid(quotas, tenant)) == (9216, 10240)


def test_the_greatest_limit_is_accepted_by_the_tool(quotas, tenant):
    assert set_limit(quotas, tenant, 104857600) == {"ok": True}
    assert limits(quotas, uid(quotas, tenant)) == (96636764160, 107374182400)


def test_a_limit_of_0_is_none(quotas, tenant):
    assert set_limit(quotas, tenant, 10) == {"ok": True}
    assert set_limit(quotas, tenant, 0) == {"ok": True}
    assert limits(quotas, uid(quotas, tenant)) == (0, 0)
    assert fill(quotas, tenant, 12).code == 0


def test_deletion_takes_the_limit_away(quotas, tenant, neighbour):
    number = uid(quotas, neighbour)
    assert set_limit(quotas, neighbour, 6) == {"ok": True}
    assert fill(quotas, neighbour, 8).code == 1
    reply = quotas.request("hosting.delete", username=neighbour.name, confirm=neighbour.name)
    assert reply.pop("archive").startswith(f"/var/backups/corvane/{neighbour.name}-")
    assert reply == {"ok": True}
    # The next user to be made may get the same number, and must not find this one's limit.
    assert limits(quotas, number) == (0, 0)
    assert list(quotas.request("hosting.usage")["usage"]) == [tenant.name]


@pytest.mark.turn
def test_an_account_that_is_put_back_has_its_limit_again(quotas):
    account = quotas.account()
    assert set_limit(quotas, account, 40) == {"ok": True}
    before = limits(quotas, uid(quotas, account))
    assert before == (36864, 40960)
    quotas.ok(["corvctl", "account", "delete", account.name, "--confirm", account.name])
    source = json.loads(quotas.ok(["corvctl", "--json", "account", "restore", account.name]))["sources"][0]["from"]
    quotas.ok(["corvctl", "account", "restore", account.name, "--from", source, "--confirm", account.name])
    assert limits(quotas, uid(quotas, account)) == before
