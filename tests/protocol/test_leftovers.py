"""What an account's user leaves outside the home, and who comes after: nothing passes from one to the other."""

import json
import os
import re
import subprocess

import pytest

from ground import MS_NOSUID, mount
from programs import wait_until

BACKUPS = "/var/backups/corvane"


@pytest.fixture
def alice(sandbox):
    """An account, and beside it a neighbour's."""
    sandbox.answer("findmnt", out="/ ext4\n")
    sandbox.add_account("alice")
    sandbox.add_account("bob", "bob.example")
    return sandbox


def create(sandbox, username="alice"):
    return sandbox.request("hosting.create", username=username, domain="example.org")


def delete(sandbox, username="alice"):
    return sandbox.request("hosting.delete", username=username, confirm=username)


def former(sandbox):
    """What has been set aside, name to entry and content; the folder itself is root's alone."""
    names = [name for name in os.listdir(sandbox.path(BACKUPS)) if name.endswith("-former")]
    assert len(names) <= 1
    if not names:
        return {}
    assert re.fullmatch(r"[a-z]+-\d{8}-\d{6}-former", names[0])
    assert sandbox.entry(BACKUPS) == "0700 root:root"
    assert sandbox.entry(f"{BACKUPS}/{names[0]}") == "0700 root:root"
    return sandbox.tree(f"{BACKUPS}/{names[0]}")


def leave_everywhere(sandbox, user):
    """Leaves files of a user where users can leave them; the paths."""
    paths = ["/tmp/file", "/tmp/a/b/file", "/var/tmp/program", "/dev/shm/memory", "/var/spool/cron/atjobs/a0001", "/var/crash/report",
             "/run/lock/lock", "/dev/mqueue/queue", "/run/screen/S-shop/socket", f"/run/user/{sandbox.uid(user)}/socket"]
    for path in paths:
        sandbox.write(path, user, owner=f"{user}:{user}")
    sandbox.path("/var/tmp/program").chmod(0o4755)
    for folder in ("/tmp/a/b", "/tmp/a"):
        os.chown(sandbox.path(folder), *sandbox.ids(f"{user}:{user}"))
    sandbox.write(f"/var/spool/cron/crontabs/{user}", "* * * * * true", mode=0o600, owner=f"{user}:{user}")
    sandbox.write(f"/var/lib/systemd/linger/{user}")
    sandbox.write(f"/var/mail/{user}", "letter", owner=f"{user}:mail")
    return [*paths, "/tmp/a", f"/var/spool/cron/crontabs/{user}", f"/var/lib/systemd/linger/{user}", f"/var/mail/{user}"]


# The ids


def test_ids_of_a_deleted_account_are_kept(alice):
    uid = alice.uid("alice")
    assert delete(alice)["ok"] is True
    tree = alice.tree("/etc/userdb")
    assert sorted(tree) == sorted([f"corv-gone-{uid}.user", f"corv-gone-{uid}.group", f"{uid}.user", f"{uid}.group"])
    user = json.loads(alice.read(f"/etc/userdb/{uid}.user"))
    group = json.loads(alice.read(f"/etc/userdb/{uid}.group"))
    assert user == {"userName": f"corv-gone-{uid}", "uid": uid, "gid": 65534, "realName": "Deleted account", "homeDirectory":
                    "/nonexistent", "shell": "/usr/sbin/nologin", "disposition": "reserved", "locked": True}
    assert group == {"groupName": f"corv-gone-{uid}", "gid": uid, "disposition": "reserved"}
    assert alice.entry("/etc/userdb") == "0755 root:root"
    assert alice.entry(f"/etc/userdb/corv-gone-{uid}.user") == "0644 root:root"
    assert alice.entry(f"/etc/userdb/{uid}.user") == f"link -> corv-gone-{uid}.user"


def test_a_new_account_gets_none_of_the_kept_ids(sandbox):
    given = []
    for _ in range(3):
        assert create(sandbox)["ok"] is True
        given.append(sandbox.ids("alice:alice"))
        assert delete(sandbox)["ok"] is True
    assert given == [(1000, 1000), (1001, 1001), (1002, 1002)]
    assert not [name for name in os.listdir(sandbox.path("/run")) if "login" in name]
    assert "UID_MIN 1000\n" in sandbox.read("/etc/login.defs")


def test_ids_of_an_undone_creation_are_kept(sandbox):
    sandbox.answer("psql", exit=1, err="no")
    assert create(sandbox)["ok"] is False
    assert not sandbox.has_user("alice")
    assert sandbox.exists("/etc/userdb/1000.user") and sandbox.exists("/etc/userdb/1000.group")
    sandbox.answer("psql")
    assert create(sandbox)["ok"] is True
    assert sandbox.ids("alice:alice") == (1001, 1001)


def test_an_id_that_was_given_out_again_is_refused(sandbox):
    # Without login definitions there is no telling useradd, and this root's C library knows no kept ids.
    create(sandbox)
    delete(sandbox)
    sandbox.path("/etc/login.defs").unlink()
    sandbox.forget_calls()
    reply = create(sandbox)
    assert reply == {"ok": False, "error": "useradd gave 'alice' the user id 1000 of a deleted account"}
    assert sandbox.argvs()[1:] == [["pkill", "-u", "alice"], ["userdel", "--remove", "alice"]]
    assert not sandbox.has_user("alice") and not sandbox.exists("/home/alice")


def test_a_group_id_that_was_given_out_again_is_refused(sandbox):
    create(sandbox)
    delete(sandbox)
    sandbox.path("/etc/login.defs").unlink()
    for name in ("1000.user", "corv-gone-1000.user"):
        sandbox.path(f"/etc/userdb/{name}").unlink()
    assert create(sandbox) == {"ok": False, "error": "useradd gave 'alice' the group id 1000 of a deleted account"}
    assert not sandbox.has_user("alice") and not sandbox.exists("/home/alice")


def test_a_user_that_cannot_be_removed_goes_on_under_its_name(alice):
    alice.answer("userdel", exit=8, err="in use")
    assert delete(alice)["error"] == "userdel failed: in use"
    assert alice.run("id", "-un", str(alice.uid("alice")))[1] == "alice\n"
    alice.answer("userdel", real=True)
    assert delete(alice)["ok"] is True


# What is left


def test_a_deletion_leaves_nothing_of_the_user(alice):
    theirs = leave_everywhere(alice, "alice")
    alice.symlink("/tmp/link", "/srv/precious")
    os.lchown(alice.path("/tmp/link"), *alice.ids("alice:alice"))
    alice.write("/srv/precious", "x", owner="alice:alice")
    assert delete(alice)["ok"] is True
    assert [path for path in [*theirs, "/tmp/link"] if alice.exists(path)] == []
    assert alice.read("/srv/precious") == "x"


def test_a_deletion_leaves_what_is_others(alice):
    others = leave_everywhere(alice, "bob")
    alice.mkdir("/tmp/shared", mode=0o1777, owner="bob:bob")
    alice.write("/tmp/shared/hers", "", owner="alice:alice")
    alice.mkdir("/tmp/open", mode=0o777, owner="alice:alice")
    alice.write("/tmp/open/his", "his", owner="bob:bob")
    before = {path: alice.entry(path) for path in others}
    assert delete(alice)["ok"] is True
    assert {path: alice.entry(path) for path in others} == before
    assert alice.tree("/tmp/shared") == {}
    assert alice.read("/tmp/open/his") == "his"


def test_a_user_that_stays_keeps_its_files(alice):
    theirs = leave_everywhere(alice, "alice")
    alice.answer("userdel", exit=8, err="in use")
    assert delete(alice)["ok"] is False
    assert [path for path in theirs if not alice.exists(path)] == []


def test_shared_memory_goes_with_its_owner(alice):
    make = "import ctypes; c = ctypes.CDLL(None); print(c.shmget(0, 4096, 0o1600), c.semget(0, 1, 0o1600), c.msgget(0, 0o1600))"
    alice.start()
    for user in ("alice", "bob"):
        code, out, err = alice.run("/usr/bin/setpriv", f"--reuid={alice.uid(user)}", "--clear-groups", "/usr/bin/python3", "-c", make)
        assert (code, "-1" in out) == (0, False), err
    assert delete(alice)["ok"] is True
    for table in ("shm", "sem", "msg"):
        lines = alice.run("cat", f"/proc/sysvipc/{table}")[1].splitlines()[1:]
        assert [int(line.split()[4 if table == "sem" else 7]) for line in lines] == [alice.uid("bob")]


def test_what_one_made_and_another_owns_goes_with_either(alice):
    """The maker may still change it, and so may its owner."""
    make = (
        "import ctypes, os, sys; c = ctypes.CDLL(None, use_errno=True); buffer = ctypes.create_string_buffer(512)\n"
        "made = [c.shmget(0, 4096, 0o1600), c.semget(0, 1, 0o1600), c.msgget(0, 0o1600)]\n"
        "calls = [c.shmctl, lambda number, *rest: c.semctl(number, 0, *rest), c.msgctl]\n"
        "for number, call in zip(made, calls):\n"
        "    stat = call(number, 2, buffer)\n"  # IPC_STAT
        "    buffer[4:8] = int(sys.argv[1]).to_bytes(4, 'little')\n"  # the owner, behind the key
        "    print(number, stat, call(number, 1, buffer))\n"  # IPC_SET
    )
    alice.start()
    alice.add_account("carol", "carol.example")
    uid = alice.uid
    for maker, owner in (("alice", "bob"), ("bob", "alice"), ("bob", "carol")):
        code, out, err = alice.run("/usr/bin/setpriv", f"--reuid={uid(maker)}", "--clear-groups", "/usr/bin/python3", "-c", make,
                                   str(uid(owner)))
        assert (code, "-1" in out) == (0, False), err
    assert delete(alice)["ok"] is True
    for table in ("shm", "sem", "msg"):
        lines = alice.run("cat", f"/proc/sysvipc/{table}")[1].splitlines()[1:]
        at = 4 if table == "sem" else 7
        assert [(int(line.split()[at + 2]), int(line.split()[at])) for line in lines] == [(uid("bob"), uid("carol"))]


@pytest.mark.parametrize("command", ["suspend", "delete"])
def test_no_process_outlives_its_account(alice, command):
    alice.start()
    uid = alice.uid("alice")
    script = "trap '' TERM HUP INT; echo >/tmp/started-$$; exec sleep 1000"
    started = []
    for user in (uid, uid, alice.uid("bob")):
        enter = ["nsenter", f"--target={alice.agent.pid}", "--pid", f"--root={alice.root}", "--wd=/", "/usr/bin/setpriv",
                 f"--reuid={user}", "--clear-groups", "/bin/sh", "-c", script]
        started.append(subprocess.Popen(enter))
    while len(list(alice.path("/tmp").glob("started-*"))) < 3:
        pass
    args = {"confirm": "alice"} if command == "delete" else {}
    assert alice.request(f"hosting.{command}", username="alice", **args)["ok"] is (command == "suspend")
    assert [process.wait() for process in started[:2]] == [-9, -9]
    assert started[2].poll() is None
    started[2].kill()
    started[2].wait()


def test_a_home_too_deep_for_userdel_goes(alice):
    folder = os.open(alice.path("/home/alice/tmp"), os.O_RDONLY)
    for _ in range(3000):
        os.mkdir("d", dir_fd=folder)
        below = os.open("d", os.O_RDONLY, dir_fd=folder)
        os.close(folder)
        folder = below
    os.close(folder)
    alice.answer("tar")
    reply = delete(alice)
    assert reply["ok"] is True
    assert not alice.exists("/home/alice")


# Who comes after


def test_a_newcomer_takes_over_nothing_by_name(sandbox):
    sandbox.write("/var/spool/cron/crontabs/alice", "* * * * * true", mode=0o600)
    sandbox.write("/var/lib/systemd/linger/alice")
    sandbox.write("/var/mail/alice", "letter", mode=0o660)
    sandbox.php("8.2", "8.1")
    sandbox.write("/etc/php/8.1/fpm/pool.d/corv-alice.conf", "pool")
    sandbox.write("/etc/php/8.2/fpm/pool.d/corv-alice.conf.suspended", "parked")
    assert create(sandbox)["ok"] is True
    assert sorted(former(sandbox).values()) == [
        "0600 root:root ", "0600 root:root * * * * * true", "0600 root:root letter", "0600 root:root parked", "0600 root:root pool"]
    for folder in ("/var/spool/cron/crontabs", "/var/lib/systemd/linger", "/var/mail", "/etc/php/8.1/fpm/pool.d"):
        assert sandbox.tree(folder) == {}
    assert list(sandbox.tree("/etc/php/8.2/fpm/pool.d")) == ["corv-alice.conf"]


def test_a_newcomer_takes_over_nothing_by_number(sandbox):
    paths = ["/tmp/file", "/var/tmp/program", "/var/spool/cron/atjobs/a0001"]
    for path in paths:
        os.chown(sandbox.write(path, path), 1000, 1000)
    sandbox.path("/var/tmp/program").chmod(0o4755)
    assert create(sandbox)["ok"] is True
    assert sandbox.uid("alice") == 1000
    assert [path for path in paths if sandbox.exists(path)] == []
    assert sorted(former(sandbox).values()) == sorted(f"0600 root:root {path}" for path in paths)


@pytest.mark.parametrize("content", ["", "1", "x" * 65536, "x" * 65537], ids=len)
def test_what_is_set_aside_is_whole(sandbox, content):
    os.chown(sandbox.write("/tmp/file", content), 1000, 1000)
    assert create(sandbox)["ok"] is True
    assert former(sandbox) == {"1-file": f"0600 root:root {content}"}
    assert not sandbox.exists("/tmp/file")


def leave_kinds(sandbox, folder):
    """Leaves a program of user 1000's in a folder, and what is no file."""
    sandbox.write(f"{folder}/program", "x", mode=0o4755)
    sandbox.symlink(f"{folder}/link", "/etc/passwd")
    os.mkfifo(sandbox.path(f"{folder}/pipe"))
    for name in ("program", "link", "pipe"):
        os.lchown(sandbox.path(f"{folder}/{name}"), 1000, 1000)
    sandbox.path(f"{folder}/program").chmod(0o4755)


def test_where_the_backups_are_no_other_file_system_everything_is_moved(sandbox):
    sandbox.run("umount", "/var/backups")
    leave_kinds(sandbox, "/var/tmp")
    assert create(sandbox)["ok"] is True
    assert sandbox.tree("/var/tmp") == {}
    found = {re.sub(r"^[1-3]-", "", name): entry for name, entry in former(sandbox).items()}
    assert found == {"program": "0600 root:root x", "link": "link -> /etc/passwd", "pipe": "0600 root:root"}
    (folder,) = sandbox.path(BACKUPS).iterdir()
    assert {path.lstat().st_uid for path in folder.iterdir()} == {0}


def test_what_cannot_be_moved_stays_as_roots(sandbox):
    leave_kinds(sandbox, "/tmp")
    for name, size in (("just", 64 << 20), ("over", (64 << 20) + 1)):
        os.chown(sandbox.write(f"/tmp/{name}"), 1000, 1000)
        os.truncate(sandbox.path(f"/tmp/{name}"), size)
    assert create(sandbox)["ok"] is True
    assert {name: sandbox.entry(f"/tmp/{name}") for name in os.listdir(sandbox.path("/tmp"))} == {
        "link": "link -> /etc/passwd", "pipe": "0600 root:root", "over": "0600 root:root"}
    assert sandbox.path("/tmp/link").lstat().st_uid == 0
    (folder,) = sandbox.path(BACKUPS).iterdir()
    assert sorted((re.sub(r"^\d-", "", path.name), path.stat().st_size) for path in folder.iterdir()) == [("just", 64 << 20), ("program", 1)]


def linger(sandbox, script, *args):
    """Starts a program in the sandbox that goes on for itself; the process, once the program has made /tmp/started."""
    sandbox.start()
    enter = ["nsenter", f"--target={sandbox.agent.pid}", "--pid", f"--root={sandbox.root}", "--wd=/", *args, script]
    left = subprocess.Popen(enter)
    wait_until(lambda: sandbox.exists("/tmp/started"), "the program")
    return left


def test_a_newcomer_meets_no_process_of_its_number(sandbox):
    """One that has been running since the number was somebody else's could signal, trace and read all of the new account's."""
    left = linger(sandbox, "trap '' TERM HUP INT; echo >/tmp/started; exec sleep 1000", "/usr/bin/setpriv", "--reuid=1000",
                  "--clear-groups", "/bin/sh", "-c")
    try:
        assert create(sandbox)["ok"] is True
        assert sandbox.uid("alice") == 1000
        assert left.wait(timeout=30) == -9
    finally:
        left.kill()
        left.wait()


def test_a_process_of_that_number_in_another_root_is_somebody_elses(sandbox):
    """A system in a folder, such as a container's, has users of its own."""
    sandbox.mkdir("/srv/other")
    script = ("import os, time; started = os.open('/tmp', os.O_RDONLY); os.chroot('/srv/other'); os.setuid(1000);"
              "os.close(os.open('started', os.O_CREAT | os.O_WRONLY, dir_fd=started)); time.sleep(1000)")
    left = linger(sandbox, script, "/usr/bin/python3", "-c")
    try:
        assert create(sandbox)["ok"] is True
        assert sandbox.uid("alice") == 1000
        assert left.poll() is None
    finally:
        left.kill()
        left.wait()


def test_a_home_of_roots_is_taken_over(sandbox):
    sandbox.write("/home/alice/public_html/prepared", "by the administrator")
    assert create(sandbox)["ok"] is True
    assert sandbox.read("/home/alice/public_html/prepared") == "by the administrator"
    assert os.listdir(sandbox.path("/home")) == ["alice"]


def test_a_home_of_nobody_is_set_aside(sandbox):
    sandbox.write("/home/alice/.ssh/authorized_keys", "an old key")
    os.chown(sandbox.path("/home/alice"), 1234, 1234)
    assert create(sandbox)["ok"] is True
    assert sandbox.tree("/home/alice/.ssh") == {}
    (hidden,) = [name for name in os.listdir(sandbox.path("/home")) if re.fullmatch(r"\.former-alice-\d{8}-\d{6}", name)]
    assert sandbox.entry(f"/home/{hidden}") == "0700 root:root"
    assert sandbox.read(f"/home/{hidden}/.ssh/authorized_keys") == "an old key"


@pytest.mark.parametrize("tool", ["chown", "chmod"])
def test_links_in_a_home_lead_nowhere_for_root(sandbox, tool):
    # Whoever were the newcomer already could put a link in the page's place between two steps.
    sandbox.write("/etc/secret", "secret", mode=0o600)
    place = "public_html/index.html" if tool == "chown" else "tmp"
    swap = f"rm -rf /home/alice/{place}; ln -s /etc/secret /home/alice/{place}; exec /usr/bin/{tool} \"$@\""
    which = ("alice:www-data", ...) if tool == "chown" else ("0700", ...)
    sandbox.answer(tool, *which, shell=swap)
    reply = create(sandbox)
    assert reply["ok"] is False
    assert "Too many levels of symbolic links" in reply["error"]
    assert sandbox.entry("/etc/secret") == "0600 root:root"
    assert not sandbox.has_user("alice")


def mount_as(sandbox, user, place):
    """Mounts what fusermount does for that user: a file system of which he alone may see anything. The descriptor of its server, which
    never answers."""
    sandbox.mkdir(place, owner=f"{user}:{user}")
    server = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)
    mount("shop", sandbox.path(place), "fuse", MS_NOSUID, f"fd={server},rootmode=40000,user_id={sandbox.uid(user)},group_id=1000")
    return server


@pytest.mark.parametrize("place", ["", "/mine", "/public_html/my files/deep"])
def test_what_a_user_mounts_in_the_home_does_not_make_the_account_last(alice, place):
    alice.write("/home/alice/public_html/page", "text", owner="alice:alice")
    servers = [mount_as(alice, "alice", f"/home/alice{place}"), mount_as(alice, "bob", "/home/bob/mine")]
    try:
        with pytest.raises(PermissionError):
            os.listdir(alice.path(f"/home/alice{place}"))
        reply = delete(alice)
        assert reply["ok"] is True
        assert not alice.exists("/home/alice") and not alice.has_user("alice")
        archive = alice.path(reply["archive"].replace("*", "home.tar.gz"))
        members = subprocess.run(["tar", "-tzf", archive], capture_output=True, text=True, check=True).stdout.splitlines()
        assert "alice/public_html/page" in members
        with pytest.raises(PermissionError):
            os.listdir(alice.path("/home/bob/mine"))
    finally:
        for server in servers:
            os.close(server)


def test_what_root_mounts_in_a_home_is_archived(alice):
    alice.mkdir("/home/alice/volume")
    alice.small_disk("/home/alice/volume", "64k")
    alice.write("/home/alice/volume/page", "text")
    alice.answer("userdel", exit=1, err="not in this test")
    reply = delete(alice)
    archive = alice.path(reply["archive"].replace("*", "home.tar.gz"))
    members = subprocess.run(["tar", "-tzf", archive], capture_output=True, text=True, check=True).stdout.splitlines()
    assert "alice/volume/page" in members
    assert alice.read("/home/alice/volume/page") == "text"


def test_a_folder_of_homes_that_is_a_link_is_followed(sandbox):
    sandbox.mkdir("/srv/homes")
    sandbox.answer("findmnt", out="/ ext4\n")
    sandbox.run("sh", "-c", "umount /home; rmdir /home && ln -s /srv/homes /home")
    assert create(sandbox)["ok"] is True
    assert sandbox.entry("/srv/homes/alice") == "0710 alice:www-data"
    assert delete(sandbox)["ok"] is True
    assert not sandbox.exists("/srv/homes/alice")


def test_without_the_right_to_mounts_of_its_own_it_works_as_ever(sandbox):
    sandbox.answer("findmnt", out="/ ext4\n")
    sandbox.start(wrapper=("/usr/bin/setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"))
    assert create(sandbox)["ok"] is True
    assert sandbox.entry("/home/alice/public_html/index.html") == "0644 alice:www-data"
    assert delete(sandbox)["ok"] is True
