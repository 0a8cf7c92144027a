"""Attempts of a tenant whose account is deleted or suspended to stay, and to become the tenant who comes after. --unguarded is for
a package from before what stops them (CORV_PACKAGE names it): each gets through there."""

import pytest

LIMIT = 300
TRIES = 20
PROGRAM = "/var/tmp/.program"

# Waits, as whoever has the former id now, for a home that is its own and not yet its attacker's, and puts a link in the page's
# place: root's chown then gives away what it leads to.
SWAP = """
import os, sys, time
end = time.monotonic() + float(sys.argv[2])
page = sys.argv[1] + "/public_html/index.html"
while time.monotonic() < end:
    try:
        os.symlink("/etc/shadow", page + ".link")
        os.rename(page + ".link", page)
        break
    except FileNotFoundError:
        pass
    except PermissionError:
        pass
    except FileExistsError:
        os.rename(page + ".link", page)
"""

DEEP = """
import os
os.chdir(os.path.expanduser("~/tmp"))
for _ in range(20000):
    os.mkdir("d")
    os.chdir("d")
"""

# Keeps a lease on a file of one's own: whoever opens it waits for the holder, who ignores the kernel's request.
LEASE = """
import fcntl, os, signal
signal.signal(signal.SIGTERM, signal.SIG_IGN)
signal.signal(signal.SIGIO, signal.SIG_IGN)
file = open("leased", "w")
fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_WRLCK)
while True:
    signal.pause()
"""

SHARE = "import ctypes; c = ctypes.CDLL(None); c.shmget(0, 4096, 0o1666); c.semget(0, 1, 0o1666); c.msgget(0, 0o1666)"


def delete(host, account):
    return host.request("hosting.delete", username=account.name, confirm=account.name)


def uid_of(host, account):
    return int(host.ok(["id", "-u", account.name]))


def leave_running(host, account, script):
    """Leaves a process of the account behind; returns when it runs."""
    host.put(f"{account.home}/run.sh", f"cd\n{script}", owner=f"{account.name}:{account.name}")
    host.ssh(account, "trap '' TERM; setsid sh -c ': >started; . ./run.sh' >/dev/null 2>&1 </dev/null &")
    host.wait_for(lambda: host.exists(f"{account.home}/started"), "the account's process running")


def processes(host, uid):
    """Those that live. One that has ended may still wait for the first process, which has more to do, to take note of that."""
    lines = host.run(["ps", "-o", "stat=,pid=", "-U", str(uid)]).out.splitlines()
    return [line.split()[1] for line in lines if not line.startswith("Z")]


def test_the_next_one_with_his_id_does_not_run_his_program(host, account, guarded):
    """A set-user-ID program of a tenant who is gone is started by an accomplice while the next account is being made."""
    uid = uid_of(host, account)
    host.ok(["sh", "-c", f"cp /usr/bin/python3 {PROGRAM} && chmod 4755 {PROGRAM}"], user=account.name)
    # One more, where nobody looks for such a thing.
    host.ok(["sh", "-c", f"mkdir -m 1777 /srv/anywhere && cp -p {PROGRAM} /srv/anywhere/program && chmod 4755 /srv/anywhere/program"])
    assert delete(host, account)["ok"] is True

    taken = []
    for _ in range(TRIES):
        name = host.free_name()
        accomplice = host.background(["runuser", "-u", "www-data", "--", "/srv/anywhere/program", "-c", SWAP, f"/home/{name}", "2"])
        reply = host.request("hosting.create", username=name, domain=f"{name}.test")
        accomplice.wait()
        taken.append(host.mode("/etc/shadow"))
        newcomer = host.run(["id", "-u", name]).out.strip()
        if guarded:
            assert reply["ok"] is True
            assert newcomer != str(uid)
        host.request("hosting.delete", username=name, confirm=name)
        if taken[-1] != "640 root shadow":
            break
    host.run(["chown", "root:shadow", "/etc/shadow"])
    host.run(["chmod", "640", "/etc/shadow"])
    host.ok(["rm", "-rf", "/srv/anywhere"])
    left = host.exists(PROGRAM)
    host.run(["rm", "-f", PROGRAM])
    assert (taken[-1] == "640 root shadow", left) == (guarded, not guarded)


def test_his_jobs_do_not_run_for_the_next_one_of_his_name(host, account, guarded):
    name = account.name
    owner = f"{name}:{name}"
    host.ok(["crontab", "-"], user=name, input="* * * * * touch ~/the-former-one-was-here\n")
    host.put("/var/spool/cron/atjobs/a0000101c0ffee", "#!/bin/sh\ntouch ~/here\n", mode="0700", owner=owner)
    host.put(f"/var/lib/systemd/linger/{name}", "")
    host.put(f"/var/mail/{name}", "From former\n", owner=f"{name}:mail")
    host.put("/dev/shm/former", "", owner=owner)
    assert delete(host, account)["ok"] is True
    reply = host.request("hosting.create", username=name, domain=account.domain)
    assert reply["ok"] is True, reply
    assert host.run(["getent", "group", name]).code == 0
    places = [f"/var/spool/cron/crontabs/{name}", "/var/spool/cron/atjobs/a0000101c0ffee", f"/var/lib/systemd/linger/{name}",
              "/dev/shm/former"]
    assert [host.exists(place) for place in places] == [not guarded] * len(places)
    host.run(["rm", "-f", *places])


def test_nobody_gets_ids_below_which_a_former_tenant_has_left_anything(host, account, guarded):
    """A user's subordinate ids are the next one's when he is gone, and with them what containers of his have left."""
    ranges = [line.split(":") for path in ("/etc/subuid", "/etc/subgid") for line in host.get(path).splitlines()]
    assert bool([user for user, *_ in ranges if user == account.name]) is not guarded


def test_a_group_id_is_not_given_out_again_either(host, account, guarded):
    gid = host.ok(["id", "-g", account.name]).strip()
    assert delete(host, account)["ok"] is True
    assert (host.ok(["id", "-g", host.account().name]).strip() == gid) is not guarded


def test_a_lease_that_its_holder_keeps_does_not_make_an_account_lasting(host, account):
    leave_running(host, account, f"exec python3 -c '{LEASE}'\n")
    host.wait_for(lambda: "LEASE" in host.get("/proc/locks"), "the lease")
    assert host.request("hosting.suspend", username=account.name) == {"ok": True}
    assert delete(host, account)["ok"] is True


def test_his_memory_does_not_stay(host, account, guarded):
    uid = uid_of(host, account)
    host.ok(["python3", "-c", SHARE], user=account.name)
    assert delete(host, account)["ok"] is True
    tables = [line.split() for table in ("shm", "msg", "sem") for line in host.get(f"/proc/sysvipc/{table}").splitlines()[1:]]
    assert any(str(uid) in line for line in tables) is not guarded
    host.run(["sh", "-c", "ipcrm --all=shm --all=msg --all=sem"])


def test_who_ignores_the_polite_signal_does_not_outlive_a_suspension(host, account, guarded):
    uid = uid_of(host, account)
    leave_running(host, account, "while :; do sleep 0.1; done\n")
    assert host.request("hosting.suspend", username=account.name)["ok"] is True
    assert bool(processes(host, uid)) is not guarded
    host.run(["pkill", "-KILL", "-U", str(uid)])


def test_who_ignores_the_polite_signal_holds_up_one_removal_at_most(host, account, guarded):
    uid = uid_of(host, account)
    leave_running(host, account, "while :; do sleep 0.1; done\n")
    assert delete(host, account)["ok"] is False
    assert bool(processes(host, uid)) is not guarded
    # By hand: the database is gone, so that a deletion can make no copy of it any more.
    assert (host.run(["userdel", "--remove", account.name]).code == 0) is guarded
    host.run(["pkill", "-KILL", "-U", str(uid)])


def test_a_swarm_that_forks_faster_than_one_can_look_ends_too(host, account, guarded):
    uid = uid_of(host, account)
    # Each lives for a moment and leaves the next one.
    leave_running(host, account, "exec python3 -c '\nimport os, signal\nsignal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
                                 "while True:\n    if os.fork():\n        os._exit(0)\n'\n")
    host.request("hosting.suspend", username=account.name)
    # One of them may hide from a single look by ending within it.
    assert any(processes(host, uid) for _ in range(20)) is not guarded
    for _ in range(0 if guarded else 50):
        host.run(["sh", "-c", f"systemctl kill -s KILL user-{uid}.slice; pkill -KILL -U {uid}"])


def test_his_pool_under_another_version_does_not_stay(host, account, guarded):
    """The next reload of that PHP-FPM fails for everybody over a pool whose user is gone."""
    pool = f"/etc/php/7.4/fpm/pool.d/corv-{account.name}.conf"
    # What mends it afterwards is not what is tried here.
    host.ok(["systemctl", "stop", "corv-php.path"])
    host.put(pool, host.get(f"/etc/php/{account.php}/fpm/pool.d/corv-{account.name}.conf"))
    assert delete(host, account)["ok"] is True
    left = host.exists(pool)
    host.ok(["rm", "-r", "/etc/php/7.4"])
    host.ok(["systemctl", "start", "corv-php.path"])
    assert left is not guarded


def test_a_home_too_deep_for_userdel_does_not_stay(host, account, guarded):
    host.ok(["python3", "-c", DEEP], user=account.name, env={"HOME": account.home})
    # What tar makes of such a home is another matter.
    with host.stand_in("tar", 'exec /usr/bin/tar "$1" "$2" --no-anchored --exclude d "$3" "$4" "$5"\n'):
        reply = delete(host, account)
    left = host.exists(account.home)
    host.run(["find", account.home, "-delete"])
    assert (reply["ok"], left) == (guarded, not guarded), reply


@pytest.mark.parametrize("tool", ["tar", "du", "userdel"])
def test_links_lead_nowhere_where_root_works_in_homes(host, account, guarded, tool):
    host.ok(["ln", "-s", "/etc/passwd", f"{account.home}/link"])
    look = f'if cat {account.home}/link >/dev/null 2>&1; then echo followed; else readlink {account.home}/link; fi >/run/seen'
    with host.stand_in(tool, f'{look}\nexec /usr/bin/env PATH=/usr/sbin:/usr/bin {tool} "$@"\n'):
        host.request("hosting.usage")
        assert delete(host, account)["ok"] is True
    assert host.get("/run/seen").strip() == ("/etc/passwd" if guarded else "followed")


def test_links_lead_nowhere_for_the_backup_either(host, account, guarded):
    host.ok(["ln", "-s", "/etc/passwd", f"{account.home}/link"])
    look = f'#!/bin/sh\nif cat {account.home}/link >/dev/null 2>&1; then echo followed; else readlink {account.home}/link; fi >/run/seen\n'
    host.put("/run/tools/tar", f'{look}exec /usr/bin/tar "$@"\n', mode="0755")
    host.put("/run/systemd/system/corv-backup.service.d/tools.conf",
             "[Service]\nEnvironment=PATH=/run/tools:/usr/sbin:/usr/bin:/sbin:/bin\n")
    host.ok(["systemctl", "daemon-reload"])
    host.run(["systemctl", "start", "corv-backup"])
    journal = host.journal("corv-backup")
    host.ok(["rm", "-r", "/run/tools", "/run/systemd/system/corv-backup.service.d"])
    host.ok(["systemctl", "daemon-reload"])
    assert f"account {account.name}" in journal and f"{account.name} files" not in journal
    assert host.get("/run/seen").strip() == ("/etc/passwd" if guarded else "followed")
