"""corvctl account restore: a restore that was cut off, what is in its way, and who takes it off the list again."""

import json
import os
import shutil
import time

import pytest
from corvctl import PATH, corvctl, install

AUTO = "/var/backups/corvane/auto"
BACKUP = "2026-01-05_031500"
RESTORES = "/var/lib/corvane/restores"
CUT_OFF = (f"corvctl: a restore of alice from {BACKUP} was cut off; this goes on with it:\n"
           f"corvctl:   corvctl account restore alice --from {BACKUP}\n")


def journal(sandbox, target="alice", **more):
    kept = {"target": target, "account": "alice", "from": BACKUP, "domain": "alice.example", "uid": 0, "done": [], "begun": 0,
            "made": 0, **more}
    sandbox.write(f"{RESTORES}/{target}.json", json.dumps(kept), 0o600)


@pytest.fixture
def server(sandbox):
    """A sandbox with a backup of alice, of whom there is no user."""
    sandbox.mkdir("/var/lib/corvane")
    sandbox.mkdir(RESTORES, 0o700)
    sandbox.mkdir(f"{AUTO}/{BACKUP}/accounts")
    sandbox.write(f"{AUTO}/{BACKUP}/manifest.json", json.dumps(
        {"name": BACKUP, "errors": [], "accounts": [{"username": "alice", "domain": "alice.example"}]}))
    sandbox.mkdir("/srv/alice")
    sandbox.write("/srv/alice/page", "alice")
    assert sandbox.run("/usr/bin/tar", "-czf", f"{AUTO}/{BACKUP}/accounts/alice-home.tar.gz", "-C", "/srv", "alice")[0] == 0
    sandbox.answer("gzip", ..., real=True)
    return sandbox


def restore(server, *words):
    return corvctl(server, "--plain", "account", "restore", "alice", *words)


def test_without_a_source_it_lists_and_tells_of_one_that_was_cut_off(server):
    listed = restore(server)
    assert listed[0] == 0 and listed[1].startswith(f"{BACKUP}\tbackup\t") and listed[2] == ""
    journal(server)
    assert restore(server) == (0, listed[1], CUT_OFF)
    journal(server, "copy", withoutJobs=True)
    assert restore(server)[2] == CUT_OFF + (
        f"corvctl: a restore of copy from {BACKUP} was cut off; this goes on with it:\n"
        f"corvctl:   corvctl account restore alice --from {BACKUP} --as copy --no-jobs\n")
    assert json.loads(corvctl(server, "--json", "account", "restore", "alice")[1])["cutOff"] == [
        {"from": BACKUP, "as": "alice"}, {"from": BACKUP, "as": "copy"}]


def test_one_that_lies_elsewhere_is_told_of_as_well(server):
    server.path(f"{AUTO}/{BACKUP}/accounts/alice-home.tar.gz").unlink()
    journal(server)
    assert restore(server) == (0, "", CUT_OFF)


@pytest.mark.parametrize("uid, begun, is_half_done", [
    (0, 0, False), (0, -3600, False), (0, -5, True), ("own", 0, True), (54321, -5, False)])
def test_an_account_that_somebody_else_has_made_is_none_of_a_restore(server, uid, begun, is_half_done):
    number = server.add_account("alice", "alice.example")
    journal(server, uid=number if uid == "own" else uid, begun=int(time.time()) + begun if begun else 0)
    assert restore(server)[2] == (CUT_OFF if is_half_done else "")
    code, _, err = restore(server, "--from", BACKUP, "--confirm", "other")
    assert (code, err.splitlines()[0]) == (
        (2, "corvctl: that is not the account's name, so nothing was restored") if is_half_done
        else (1, "corvctl: there is a user alice on this server"))


def stored(server, domain):
    """A backup in which the account has that domain."""
    server.write(f"{AUTO}/{BACKUP}/manifest.json", json.dumps(
        {"name": BACKUP, "errors": [], "accounts": [{"username": "alice", "domain": domain}]}))


def domain_of(server):
    return next(line.split(":")[4] for line in server.read("/etc/passwd").splitlines() if line.startswith("alice:"))


@pytest.mark.parametrize("domain, words, then", [
    ("www.alice.example", [], "www.alice.example"),
    ("alice.example", [], "alice.example"),
    ("alice.example", ["--domain", "WWW.www.other.example"], "www.other.example"),
    ("www.alice.example", ["--domain", "www.alice.example"], "alice.example"),
])
def test_a_domain_that_begins_with_www_comes_back_as_it_was(server, domain, words, then):
    stored(server, domain)
    code, out, err = restore(server, "--from", BACKUP, *words, "--confirm", "alice")
    assert domain_of(server) == f"Corvane account,{then}", err
    assert f"Domain\t{then}\n" in out
    server.took("hosting.create", {"ok": True})
    server.expected_log += server.log_lines[len(server.expected_log):]


@pytest.mark.parametrize("whole", [True, False])
def test_one_whose_domain_is_taken_is_told_how_it_gets_another(server, whole):
    server.write("/etc/apache2/sites-enabled/by-hand.conf", "<VirtualHost *:80>\nServerAlias www.alice.example\n</VirtualHost>\n")
    taken = ("corvctl: the site by-hand already answers to alice.example or www.alice.example on this server, and Apache would "
             "serve only one of the two\n")
    if not whole:
        assert restore(server, "--from", BACKUP, "--confirm", "alice") == (1, "", f"{taken}  --domain DOMAIN gives it another one\n")
        return
    code, _, err = corvctl(server, "--plain", "server", "restore", f"{AUTO}/{BACKUP}", "--confirm", BACKUP)
    hint = f"  corvctl account restore alice --from {AUTO}/{BACKUP} --domain DOMAIN gives it another one\n"
    assert code == 1 and taken + hint in err and "--force" not in err
    assert restore(server, "--from", f"{AUTO}/{BACKUP}", "--domain", "other.example", "--confirm", "no")[2] == (
        "corvctl: that is not the account's name, so nothing was restored\n")


def test_going_on_gives_the_account_no_other_domain(server):
    number = server.add_account("alice", "alice.example")
    journal(server, uid=number)
    assert restore(server, "--from", BACKUP, "--domain", "new.example", "--confirm", "alice") == (
        1, "", "corvctl: the account alice is there already, half done, with the domain alice.example\n"
        "  go on without --domain; corvctl account domain alice DOMAIN gives it another one then\n")
    code, _, err = restore(server, "--from", BACKUP, "--domain", "Alice.example", "--confirm", "other")
    assert (code, err) == (2, "corvctl: that is not the account's name, so nothing was restored\n")


# How a restore ends whose source was found, before it does anything.
NAMED_WRONGLY = (2, "corvctl: that is not the account's name, so nothing was restored\n")


def restore_in_root(server, source):
    """With / as the working folder: exit code and standard error."""
    install(server)
    if server.agent is None:
        server.start()
    code, _, err = server.run("/usr/bin/env", "--chdir=/", "corvctl", "--plain", "account", "restore", "alice", "--from", source,
                              "--domain", "alice.example", "--confirm", "other", env={"PATH": PATH, "HOME": "/root"})
    return code, err


def test_a_bare_name_is_a_path_too_where_no_source_has_it(server):
    archive = server.path(f"{AUTO}/{BACKUP}/accounts/alice-home.tar.gz")
    server.mkdir("/saved")
    assert restore_in_root(server, "saved")[1].startswith("corvctl: saved holds nothing of alice\n")
    shutil.copy(archive, server.path("/saved/alice-home.tar.gz"))
    assert restore_in_root(server, "saved") == NAMED_WRONGLY
    # The archives themselves as well, by what their names have in common.
    shutil.copy(archive, server.path("/alice-old-home.tar.gz"))
    assert restore_in_root(server, "alice-old") == NAMED_WRONGLY


def test_a_bare_name_is_a_source_before_it_is_a_path(server):
    server.mkdir(f"/{BACKUP}")
    assert restore_in_root(server, BACKUP) == NAMED_WRONGLY


@pytest.mark.parametrize("form", ["--plain", "--json"])
def test_a_creation_and_a_deletion_forget_it(server, form):
    journal(server)
    server.write("/var/lib/corvane/moves/alice.left", "")
    code, out, err = corvctl(server, form, "account", "create", "alice", "alice.example")
    assert (code, err) == (0, "")
    server.secret(json.loads(out)["dbPassword"] if form == "--json" else out.split()[-1])
    assert os.listdir(server.path(RESTORES)) == os.listdir(server.path("/var/lib/corvane/moves")) == []
    journal(server)
    assert corvctl(server, "--plain", "account", "create", "alice", "alice.example")[0] == 1
    assert os.listdir(server.path(RESTORES)) == ["alice.json"]
    server.answer("pg_dump", out="PGDMP")
    code, _, err = corvctl(server, form, "account", "delete", "alice", "--confirm", "alice")
    assert code == 0, err
    assert os.listdir(server.path(RESTORES)) == []
    server.took("hosting.create", {"ok": True})
    server.took("hosting.create", {"ok": False})
    server.took("hosting.delete", {"ok": True})


def test_a_whole_server_does_not_take_a_user_for_an_account(server):
    server.add_user("alice", "Alice of the office")
    code, out, err = corvctl(server, "--json", "server", "restore", f"{AUTO}/{BACKUP}", "--confirm", BACKUP)
    assert (code, json.loads(out)["failed"], err.splitlines()[0]) == (
        1, ["alice"], "corvctl: not all is restored: alice")
    code, out, _ = corvctl(server, "server", "restore", f"{AUTO}/{BACKUP}", "--confirm", "no")
    assert code == 2 and "a user of that name is here, who is no account" in out
