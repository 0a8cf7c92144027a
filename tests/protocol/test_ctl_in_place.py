"""corvctl backup restore --in-place and account publish: homes whose owners mean well, and those whose owners do not."""

import json
import os
import re
import subprocess

import pytest
from corvctl import corvctl, install

BACKUP = "2025-03-09_031500"
AUTO = "/var/backups/corvane/auto"
ACCOUNTS = f"{AUTO}/{BACKUP}/accounts"
ARCHIVE = f"{ACCOUNTS}/alice-home.tar.gz"
HOME = "/home/alice"
PAGES = f"{HOME}/public_html"


@pytest.fixture
def alice(sandbox):
    """A site with files and folders of several kinds of access, saved in a backup and then broken."""
    sandbox.add_account("alice")
    sandbox.write(f"{HOME}/notes.txt", "saved", 0o664, "alice:alice")
    sandbox.write(f"{PAGES}/index.html", "saved", 0o640, "alice:www-data")
    sandbox.write(f"{PAGES}/.env", "password", 0o640, "alice:alice")
    sandbox.mkdir(f"{PAGES}/shop", 0o2770, "alice:www-data")
    sandbox.write(f"{PAGES}/shop/a page\n\\ é.html", "saved", 0o644, "alice:www-data")
    sandbox.write(f"{PAGES}/shop/-l.php", "saved", 0o600, "alice:alice")
    sandbox.mkdir(f"{PAGES}/sealed", 0o2550, "alice:www-data")
    sandbox.symlink(f"{PAGES}/link", "index.html")
    sandbox.mkdir(f"{HOME}/restored-2024-01-01_000000", 0o755, "alice:alice")
    for folder in (HOME, PAGES):
        for entry in sandbox.path(folder).iterdir():
            if entry.is_symlink():
                os.chown(entry, *sandbox.ids("alice"), follow_symlinks=False)
    sandbox.mkdir(ACCOUNTS)
    # By the sandbox's own names of users and groups, as the backup is made.
    subprocess.run(["tar", "-czf", sandbox.path(ARCHIVE), "--owner-map=/dev/null", "-C", sandbox.path("/home"), "alice"], check=True)
    sandbox.before = sandbox.tree(HOME)
    sandbox.write(f"{PAGES}/index.html", "broken", 0o644, "alice:www-data")
    sandbox.write(f"{PAGES}/shop/new.html", "new", 0o644, "alice:www-data")
    sandbox.write(f"{HOME}/notes.txt", "changed", 0o600, "alice:alice")
    return sandbox


def in_place(sandbox, *paths, backup=BACKUP, options=(), **how):
    return corvctl(sandbox, *options, "backup", "restore", "alice", backup, "files", "--in-place", *paths, **how)


def replies(sandbox, *args, **how):
    """What a restore in place says of itself with --json."""
    code, out, err = in_place(sandbox, *args, options=["--json"], **how)
    assert (code, err) == (0, "")
    sandbox.took("backup.restore", {"ok": True})
    return json.loads(out)


def folders(sandbox):
    return sorted(entry.name for entry in sandbox.path(HOME).iterdir() if re.match("replaced|restored", entry.name))


def test_brings_a_whole_site_back_as_it_was(alice):
    reply = replies(alice, "public_html")
    assert reply["ok"] is True and reply["placed"] == reply["replaced"] == ["public_html"]
    tree = alice.tree(HOME)
    assert {path: tree[path] for path in tree if path.startswith("public_html")} == \
        {path: alice.before[path] for path in alice.before if path.startswith("public_html")}
    assert alice.entry(PAGES) == "2750 alice:www-data"
    assert alice.read(f"{HOME}/notes.txt") == "changed"
    replaced = os.path.basename(reply["replacedTo"])
    assert folders(alice) == [replaced, "restored-2024-01-01_000000"]
    assert alice.read(f"{HOME}/{replaced}/public_html/index.html") == "broken"
    assert alice.entry(f"{HOME}/{replaced}") == "0700 alice:alice"


def test_brings_a_whole_home_back(alice):
    reply = replies(alice)
    assert sorted(reply["placed"]) == sorted([".ssh", "logs", "notes.txt", "public_html", "tmp"])
    tree = alice.tree(HOME)
    expected = {path: entry for path, entry in alice.before.items() if not path.startswith("restored-")}
    assert {path: tree[path] for path in tree if not re.match("replaced-|restored-", path)} == expected
    assert alice.read(f"{reply['replacedTo']}/notes.txt") == "changed"


@pytest.mark.parametrize("path", ["public_html/index.html", "/".join(["public_html", ".", "", "index.html"]), "notes.txt",
                                  "public_html/shop", "public_html/link", "public_html/sealed"])
def test_brings_one_file_or_folder_back(alice, path):
    plain = path.replace("/.//", "/")
    others = {name: entry for name, entry in alice.tree(HOME).items() if not name.startswith(plain)}
    reply = replies(alice, path)
    assert reply["placed"] == [plain]
    tree = alice.tree(HOME)
    assert {name: tree[name] for name in tree if name.startswith(plain)} == \
        {name: alice.before[name] for name in alice.before if name.startswith(plain)}
    replaced = os.path.basename(reply["replacedTo"])
    assert {name: tree[name] for name in tree if not name.startswith((plain, replaced))} == others


def test_brings_back_what_is_gone_with_the_folder_around_it(alice):
    subprocess.run(["rm", "-r", alice.path(f"{PAGES}/shop")], check=True)
    reply = replies(alice, "public_html/shop/-l.php")
    assert (reply["placed"], reply["replaced"], reply["replacedTo"]) == (["public_html/shop/-l.php"], [], "")
    assert alice.entry(f"{PAGES}/shop") == "2770 alice:www-data"
    assert alice.entry(f"{PAGES}/shop/-l.php") == "0600 alice:alice"
    assert folders(alice) == ["restored-2024-01-01_000000"]


def test_no_name_of_the_accounts_becomes_an_option_of_what_root_is_told_to_run(alice):
    name = "-Hevil.example;id"
    alice.write(f"{HOME}/{name}", "saved", 0o644, "alice:alice")
    subprocess.run(["tar", "-czf", alice.path(ARCHIVE), "--owner-map=/dev/null", "-C", alice.path("/home"), "alice"], check=True)
    code, out, err = in_place(alice, f"./{name}")
    alice.took("backup.restore", {"ok": True})
    assert (code, err) == (0, "")
    (stamp,) = [folder for folder in folders(alice) if folder.startswith("replaced")]
    assert out.splitlines()[-2] == f"  corvctl backup restore alice {stamp} files --in-place './{name}'"
    code, out, err = in_place(alice, f"./{name}", backup=stamp, options=["--plain"])
    assert (code, err) == (0, "")
    assert out.splitlines()[0] == f"In place\t{name}"


def test_says_how_the_replaced_ones_come_back_or_go(alice):
    code, out, err = in_place(alice, "public_html/index.html", "notes.txt")
    alice.took("backup.restore", {"ok": True})
    stamp = folders(alice)[0]
    assert (code, err) == (0, "")
    assert out == f"""\
In place       public_html/index.html, notes.txt
Replaced ones  {HOME}/{stamp}

To have the replaced ones back, or to delete them:
  corvctl backup restore alice {stamp} files --in-place public_html/index.html notes.txt
  corvctl file rm alice {stamp}
"""
    broken = alice.read(f"{HOME}/{stamp}/public_html/index.html")
    code, out, err = in_place(alice, "public_html/index.html", "notes.txt", backup=stamp, options=["--plain"])
    assert (code, err) == (0, "")
    assert alice.read(f"{PAGES}/index.html") == broken == "broken"
    assert alice.read(f"{HOME}/notes.txt") == "changed"
    again = [name for name in folders(alice) if name.startswith("replaced")]
    assert len(again) == 1
    assert alice.read(f"{HOME}/{again[0]}/public_html/index.html") == "saved"
    assert in_place(alice, backup=again[0]) == (
        2, "", f"corvctl: name what of {again[0]} to put back\n  corvctl file ls alice {again[0]} shows what is in it\n")


@pytest.mark.parametrize("words, message", [
    (["../bob"], "../bob is no path below the home\n  paths begin in the home, as in public_html/index.html"),
    (["/etc/passwd"], "/etc/passwd is no path below the home\n  paths begin in the home, as in public_html/index.html"),
    ([""], " is no path below the home\n  paths begin in the home, as in public_html/index.html"),
])
def test_takes_paths_below_the_home_alone(alice, words, message):
    assert in_place(alice, *words) == (2, "", f"corvctl: {message}\n")
    assert folders(alice) == ["restored-2024-01-01_000000"]


def test_unpacks_nothing_for_what_a_backup_has_not(alice):
    before = alice.tree(HOME)
    hint = "\n  corvctl backup list shows the backups\n"
    assert in_place(alice, "public_html", "nosuch") == (1, "", f"corvctl: the backup {BACKUP} has no nosuch of alice{hint}")
    assert in_place(alice, backup="2024-01-01_000000") == (
        1, "", f"corvctl: there is no backup 2024-01-01_000000\n  the only backup is '{BACKUP}'\n")
    alice.took("backup.status", {"ok": True})
    code, out, err = in_place(alice, backup="nonsense", options=["--json"])
    assert (code, json.loads(out)) == (1, {"ok": False, "error": "there is no backup nonsense"})
    alice.took("backup.status", {"ok": True})
    alice.path(ARCHIVE).unlink()
    assert in_place(alice) == (1, "", f"corvctl: that backup has no files for alice{hint}")
    assert alice.tree(HOME) == before


def test_reads_no_archive_that_is_a_link(alice):
    alice.path(ARCHIVE).rename(alice.path("/var/backups/elsewhere.tar.gz"))
    alice.symlink(ARCHIVE, "/var/backups/elsewhere.tar.gz")
    assert in_place(alice)[:2] == (1, "")


def test_tells_a_backup_that_is_not_there_from_one_without_the_account(alice):
    code, out, err = corvctl(alice, "--json", "backup", "restore", "alice", "2020-01-01_000000", "files")
    assert (code, json.loads(out)) == (1, {"ok": False, "error": "there is no backup 2020-01-01_000000"})
    alice.took("backup.restore", {"ok": False})
    alice.took("backup.status", {"ok": True})
    alice.path(ARCHIVE).unlink()
    code, out, err = corvctl(alice, "backup", "restore", "alice", BACKUP, "files")
    assert (code, out, err) == (1, "", "corvctl: that backup has no files for alice\n")
    alice.took("backup.restore", {"ok": False})
    alice.took("backup.status", {"ok": True})


def test_says_what_it_is_not_for(alice):
    assert corvctl(alice, "backup", "restore", "alice", BACKUP, "files", "public_html") == (
        2, "", "corvctl: single files and folders are brought back with --in-place\n")
    assert corvctl(alice, "backup", "restore", "alice", BACKUP, "database", "--in-place", "--confirm", "alice") == (
        2, "", "corvctl: --in-place is for files: a database is restored in place in any case\n")
    assert in_place(alice, options=["-H", "web1"]) == (
        2, "", "corvctl: what is restored is put in place on the server itself, not from here\n"
               "  ssh web1 corvctl backup restore ... --in-place\n")
    assert in_place(alice, options=["-n"]) == (
        0, '{"args":{"backup":"%s","username":"alice","what":"files"},"cmd":"backup.restore"}\n' % BACKUP, "")


def test_needs_root(alice):
    install(alice)
    code, out, err = alice.run("setpriv", "--reuid=33", "--clear-groups", "corvctl", "backup", "restore", "alice", BACKUP, "files",
                               "--in-place")
    assert (code, out) == (3, "")
    assert err.startswith("corvctl: putting files in place takes root, to work with the account's rights\n")


# Hostile homes


def others(sandbox):
    """All that is not the account's own."""
    return {top: sandbox.tree(top) for top in ("/etc", "/root", "/home/victim")}


@pytest.fixture
def hostile(alice):
    alice.add_account("victim")
    alice.write("/home/victim/public_html/index.html", "the victim's", 0o640, "victim:www-data")
    alice.untouched = others(alice)
    return alice


@pytest.mark.parametrize("target", ["/etc", "/home/victim/public_html", "nowhere"])
def test_follows_no_link_on_the_way(hostile, target):
    hostile.path(PAGES).rename(hostile.path(f"{HOME}/aside"))
    hostile.symlink(PAGES, target)
    code, out, err = in_place(hostile, "public_html/index.html")
    hostile.took("backup.restore", {"ok": True})
    assert (code, out) == (1, "")
    assert err.startswith("corvctl: public_html/index.html: a folder on its way is a link or cannot be entered: Not a directory; "
                          "nothing was put in place\n")
    assert others(hostile) == hostile.untouched
    assert hostile.entry(PAGES) == f"link -> {target}"


def test_replaces_a_link_itself(hostile):
    hostile.path(PAGES).rename(hostile.path(f"{HOME}/aside"))
    hostile.symlink(PAGES, "/home/victim/public_html")
    reply = replies(hostile, "public_html")
    assert hostile.entry(PAGES) == "2750 alice:www-data"
    assert hostile.entry(f"{reply['replacedTo']}/public_html") == "link -> /home/victim/public_html"
    assert others(hostile) == hostile.untouched


def test_is_not_held_up_by_a_fifo(hostile):
    for name in ("index.html", "pipe"):
        hostile.path(f"{PAGES}/{name}").unlink(missing_ok=True)
        os.mkfifo(hostile.path(f"{PAGES}/{name}"))
        os.chown(hostile.path(f"{PAGES}/{name}"), *hostile.ids("alice"))
    assert replies(hostile, "public_html/index.html")["placed"] == ["public_html/index.html"]
    assert replies(hostile, "public_html")["placed"] == ["public_html"]


def test_folders_that_are_swapped_for_links_meanwhile_lead_nowhere(hostile):
    """A process of the account that swaps the unpacked folder, and the live one, as fast as it can."""
    install(hostile)
    hostile.start()
    script = f"""
import os
while True:
    for folder in ("{HOME}/restored-{BACKUP}/public_html", "{PAGES}"):
        try:
            os.rename(folder, folder + ".x")
            os.symlink("/home/victim/public_html", folder)
            os.unlink(folder)
            os.rename(folder + ".x", folder)
        except OSError:
            pass
"""
    enter = ["nsenter", f"--target={hostile.agent.pid}", "--pid", f"--root={hostile.root}", "--wd=/", "/usr/bin/setpriv", "--reuid=alice",
             "--regid=alice", "--clear-groups", "/usr/bin/python3", "-c", script]
    with subprocess.Popen(enter) as racer:
        try:
            for _ in range(10):
                code, _, _ = in_place(hostile, "public_html", env={"TZ": "UTC"})
                assert code in (0, 1)
        finally:
            racer.kill()
    hostile.check_log = False
    assert others(hostile) == hostile.untouched


# With all bits of a user's number: under names of their own where the first calls of that kind took sixteen.
SWITCHES = "?setgroups,?setresuid,?setresgid,?setgroups32,?setresuid32,?setresgid32"


def test_the_process_in_the_home_has_the_accounts_rights_and_cannot_be_traced(hostile):
    install(hostile)
    hostile.start()
    code, out, err = hostile.run("/usr/bin/timeout", "60", "/usr/bin/strace", "-f", "-e", f"trace={SWITCHES},prctl,renameat2", "corvctl",
                                 "backup", "restore", "alice", BACKUP, "files", "--in-place", "notes.txt",
                                 env={"PATH": "/standins/bin:/usr/sbin:/usr/bin:/sbin:/bin"})
    assert code == 0, err
    hostile.took("backup.restore", {"ok": True})
    uid, gid = hostile.ids("alice")
    calls = [line.replace("32(", "(") for line in err.splitlines() if not line.startswith("+++")]
    rename = next(i for i, line in enumerate(calls) if "renameat2" in line)
    assert any(f"setgroups(2, [{gid}, 33])" in line for line in calls[:rename]), err
    assert any(f"setresuid({uid}, {uid}, {uid})" in line for line in calls[:rename]), err
    assert any("PR_SET_DUMPABLE" in line for line in calls[:rename]), err


# What the web server reaches


def lose_group(box):
    for path in (PAGES, f"{PAGES}/shop"):
        os.chown(box.path(path), *box.ids("alice"))
        box.path(path).chmod(0o750)
    os.chown(box.path(f"{PAGES}/index.html"), *box.ids("alice"))
    box.path(f"{PAGES}/index.html").chmod(0o640)


def test_publishes_a_site_again(alice):
    lose_group(alice)
    alice.path(HOME).chmod(0o700)
    alice.path(f"{PAGES}/.env").chmod(0o600)
    assert corvctl(alice, "account", "publish", "alice") == (
        0, "the web server reaches the site of alice; changed in public_html: 2\n", "")
    assert [alice.entry(path) for path in (HOME, PAGES, f"{PAGES}/shop", f"{PAGES}/index.html", f"{PAGES}/.env")] == [
        "0710 alice:www-data", "2750 alice:www-data", "2750 alice:www-data", "0640 alice:www-data", "0600 alice:alice"]
    assert corvctl(alice, "--json", "account", "publish", "alice") == (0, '{"changed":0,"ok":true}\n', "")


def test_publishes_nothing_of_others(hostile):
    os.link(hostile.path("/home/victim/public_html/index.html"), hostile.path(f"{PAGES}/theirs.html"))
    hostile.symlink(f"{PAGES}/out", "/home/victim")
    os.mkfifo(hostile.path(f"{PAGES}/pipe"))
    assert corvctl(hostile, "account", "publish", "alice")[0] == 0
    assert others(hostile) == hostile.untouched
    hostile.path(PAGES).rename(hostile.path(f"{HOME}/x"))
    hostile.symlink(PAGES, "/home/victim/public_html")
    assert corvctl(hostile, "account", "publish", "alice") == (
        1, "", "corvctl: public_html is no folder of the account's own\n")
    assert others(hostile) == hostile.untouched
    assert corvctl(hostile, "account", "publish", "nobody1") == (
        1, "", "corvctl: no Corvane account named 'nobody1'\n  corvctl account list shows the accounts\n")
