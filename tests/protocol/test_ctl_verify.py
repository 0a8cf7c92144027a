"""corvctl backup verify: what it says of whole and of damaged files, with the server's real tar and gzip."""

import json
import os
import subprocess

import pytest
from corvctl import corvctl, install

DISK = "/srv/disk/auto"
NAME = "2026-01-05_031500"
OTHER = "2026-01-04_031500"


@pytest.fixture
def server(sandbox):
    """A sandbox with the backup of one account, its archives real; what reads dumps is a stand-in."""
    sandbox.settings("[backup]\ndestination=/srv/disk/auto\n")
    for name in (NAME, OTHER):
        folder = sandbox.mkdir(f"{DISK}/{name}/accounts") or sandbox.path(f"{DISK}/{name}/accounts")
        home = sandbox.path("/root/alice")
        home.mkdir(exist_ok=True)
        (home / "file").write_text("x" * 1000)
        subprocess.run(["tar", "-czf", folder / "alice-home.tar.gz", "-C", home.parent, "alice"], check=True)
        subprocess.run(["tar", "-czf", folder.parent / "config.tar.gz", "-C", home.parent, "alice"], check=True)
        (folder / "alice-db.dump").write_bytes(dump(b"alice"))
        (folder.parent / "panel.dump").write_bytes(dump(b"corvane"))
        manifest = {"name": name, "created": 1767582975, "seconds": 75, "panelBytes": len(dump(b"corvane")), "errors": [],
                    "accounts": [{"username": "alice", "domain": "alice.example.org", "dbBytes": len(dump(b"alice")),
                                  "homeBytes": os.path.getsize(folder / "alice-home.tar.gz")}]}
        (folder.parent / "manifest.json").write_text(json.dumps(manifest))
    sandbox.answer("pg_restore")
    sandbox.remove_standin("tar")
    sandbox.allows_loose_calls("pg_restore")  # the agent alone gives it a way to the server
    # Stand-ins of that name are for those who run as an account; here the real one gives up the rights.
    sandbox.answer("setpriv", shell='PATH=/standins/bin:/usr/sbin:/usr/bin:/sbin:/bin exec /usr/bin/setpriv "$@"')
    sandbox.answer("runuser", out="0\n")
    return sandbox


def dump(name):
    """The beginning of a dump, of the form that PostgreSQL 15 writes."""
    number = lambda value: b"\0" + value.to_bytes(4, "little")  # noqa: E731
    return b"PGDMP\x01\x0e\x00\x04\x08\x01" + b"\x01\x01\0\0\0" + number(0) * 7 + number(len(name)) + name + b"rest"


def verify(server, *args):
    return corvctl(server, "backup", "verify", *args, start=False)


def test_a_whole_backup_is_passed(server):
    assert verify(server) == (0, f"the backup {NAME} is whole: 5 files read\n", "")
    kept = json.loads(server.read(f"{DISK}/{NAME}.verified.json"))
    assert [one["file"] for one in kept["files"]] == [
        "manifest.json", "panel.dump", "config.tar.gz", "accounts/alice-home.tar.gz", "accounts/alice-db.dump"]
    assert kept["faults"] == [] and kept["backup"] == NAME
    assert server.path(f"{DISK}/{NAME}.verified.json").stat().st_mode & 0o777 == 0o600


def test_what_is_not_whole_is_told(server):
    with open(server.path(f"{DISK}/{OTHER}/accounts/alice-home.tar.gz"), "r+b") as archive:
        archive.seek(-5, os.SEEK_END)
        archive.write(b"\xff")
    server.path(f"{DISK}/{OTHER}/accounts/alice-db.dump").write_bytes(dump(b"carol"))
    code, out, err = verify(server, OTHER)
    home = "accounts/alice-home.tar.gz is damaged: gzip: stdin: invalid compressed data--crc error"
    database = "accounts/alice-db.dump is a dump of another database, carol"
    assert code == 1
    assert [line.split("  ")[0] for line in out.splitlines()] == ["FILE", "accounts/alice-home.tar.gz", "accounts/alice-db.dump"]
    assert err == (f"corvctl: {home}\ncorvctl: {database}\n"
                   f"corvctl: the backup {OTHER} cannot be relied on: 2 of its files are not whole\n"
                   "  corvctl backup start --wait makes another one\n")
    code, out, err = corvctl(server, "--json", "backup", "verify", OTHER, start=False)
    said = json.loads(out)
    assert (code, err, said["ok"], said["faults"]) == (1, "", False, [home, database])


def test_a_dump_that_pg_restore_does_not_read_is_a_fault(server):
    server.answer("pg_restore", exit=1, err="pg_restore: error: could not read from input file: end of file\n")
    code, _, err = verify(server)
    assert code == 1 and "accounts/alice-db.dump is damaged: pg_restore: error: could not read from input file: end of file\n" in err


@pytest.mark.parametrize("args, said", [
    (["2026-01-01_000000"], (1, "", "corvctl: there is no backup 2026-01-01_000000\n  did you mean 2026-01-04_031500?\n")),
    (["../x"], (2, "", "corvctl: '../x' is no name of a backup\n")),
])
def test_what_cannot_be_verified_is_refused(server, args, said):
    assert verify(server, *args)[0] == said[0]
    assert verify(server, *args)[2].splitlines()[0] == said[2].splitlines()[0]


def test_what_was_found_whole_is_not_read_again_when_it_is_not_due(server):
    assert verify(server, "newest", "--due") == (0, f"the backup {NAME} is whole: 5 files read\n", "")
    assert verify(server, "newest", "--due") == (0, f"nothing is due: the backup {NAME} was found whole already\n", "")
    server.path(f"{DISK}/{NAME}/accounts/alice-db.dump").unlink()
    assert verify(server, "newest", "--due")[0] == 0
    assert verify(server)[0] == 1
    assert verify(server, "newest", "--due")[0] == 1


def test_without_a_backup_nothing_is_due(server):
    for name in (NAME, OTHER):
        server.path(f"{DISK}/{name}").rename(server.path(f"/root/{name}"))
    assert verify(server, "newest", "--due") == (0, "nothing is due: there is no backup in /srv/disk/auto\n", "")
    assert verify(server)[0] == 1


def test_links_and_pipes_are_not_followed(server):
    folder = server.path(f"{DISK}/{NAME}")
    (folder / "config.tar.gz").unlink()
    os.mkfifo(folder / "config.tar.gz")
    (folder / "panel.dump").unlink()
    (folder / "panel.dump").symlink_to("/etc/shadow")
    _, _, err = verify(server)
    assert "corvctl: config.tar.gz is no regular file\n" in err
    assert "corvctl: panel.dump cannot be opened: Too many levels of symbolic links\n" in err


def test_what_others_may_not_read_is_refused_to_them(server):
    server.add_user("dave", "David")
    install(server)
    server.start()
    done = server.run("setpriv", "--reuid=dave", "--regid=dave", "--clear-groups", "corvctl", "backup", "verify",
                      env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"})
    assert done == (3, "", "corvctl: backups are readable to root alone\n  run it as root\n")


def test_the_list_tells_of_it(server):
    server.path(f"{DISK}/{OTHER}/config.tar.gz").write_bytes(b"")
    assert (verify(server)[0], verify(server, OTHER)[0]) == (0, 1)
    code, out, err = corvctl(server, "--json", "backup", "list")
    said = {backup["name"]: backup["verified"] for backup in json.loads(out)["backups"]}
    assert (code, err) == (0, "")
    assert said[NAME]["faults"] == [] and said[OTHER]["faults"] == ["config.tar.gz is empty"]
    server.took("backup.status", {"ok": True})


@pytest.mark.parametrize("answer, why", [
    (None, f"the backup {NAME} was found whole already"), ("none", "there is no backup in /srv/disk/auto"),
    ('{"ok":true,"files":[]}', "the newest backup there was found whole already, or there is none")])
def test_nothing_is_due_over_there(server, answer, why):
    server.answer("ssh", shell='shift 3; exec "$@"')
    if answer is None:
        assert verify(server)[0] == 0
    elif answer == "none":
        for name in (NAME, OTHER):
            server.path(f"{DISK}/{name}").rename(server.path(f"/root/{name}"))
    else:
        server.answer("ssh", ignore_input=True, out=answer + "\n")
    assert corvctl(server, "-H", "web1", "backup", "verify", "--due", start=False) == (0, f"nothing is due: {why}\n", "")
    code, out, err = corvctl(server, "-H", "web1", "--json", "backup", "verify", "--due", start=False)
    assert (code, json.loads(out), err) == (0, {"ok": True, "files": [], "why": why}, "")


def test_what_is_found_over_there_is_told_as_it_is_here(server):
    here = verify(server, OTHER)
    kept = server.read(f"{DISK}/{OTHER}.verified.json")
    server.answer("ssh", ignore_input=True, out=kept)
    assert corvctl(server, "-H", "web1", "backup", "verify", OTHER, start=False) == here
    server.answer("ssh", shell='shift 3; exec "$@"')
    code, out, err = corvctl(server, "-H", "web1", "backup", "verify", "2026-01-01_000000", start=False)
    assert (code, out, "there is no backup 2026-01-01_000000" in err) == (1, "", True)
