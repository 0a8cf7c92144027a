"""corvctl account create and delete where half an account stands in the way."""

import json

import pytest
from corvctl import corvctl

ARCHIVES = "/var/backups/corvane"
SITE = "/etc/apache2/sites-available/corv-alice.conf"


def answer_databases(sandbox, roles=(), databases=()):
    """What PostgreSQL answers to the client's question; what the agent asks of it is another program's call."""
    sandbox.answer("psql", "-qtAX", ..., out=json.dumps({
        "version": 150014,
        "roles": [{"name": name, "login": True, "plain": True, "bare": True} for name in roles],
        "databases": [{"name": name, "owner": name, "invalid": invalid} for name, invalid in databases],
    }))


def create(sandbox, *options):
    return corvctl(sandbox, "--plain", "account", "create", "alice", "alice.example", *options)


def delete(sandbox, *options):
    return corvctl(sandbox, "--plain", "account", "delete", "alice", "--confirm", "alice", *options)


def changes(sandbox):
    """The calls that change something."""
    return [argv for argv in sandbox.argvs("runuser", "groupdel", "mv", "install") if "-qtAX" not in argv]


def statements(sandbox):
    """What the client has PostgreSQL do."""
    found = [argv[argv.index("-c") + 1] for argv in sandbox.argvs("runuser") if "-c" in argv]
    return [statement for statement in found if not statement.startswith("SELECT json")]


def test_a_role_in_the_way_is_named_and_stays(sandbox):
    answer_databases(sandbox, roles=["alice"])
    assert create(sandbox) == (
        1, "", "corvctl: PostgreSQL has a role alice, but there is no such account\n"
               "corvctl:   runuser -u postgres -- dropuser alice\n"
               "corvctl: the name is not free, so nothing was made\n  --clear has these commands run before\n")
    assert changes(sandbox) == []


def test_what_is_in_the_way_goes_when_told_to(sandbox):
    answer_databases(sandbox, roles=["alice"], databases=[("alice", False)])
    for program in ("dropdb", "dropuser"):
        sandbox.add_standin(program)
    sandbox.answer("pg_dump", out="PGDMP")
    sandbox.write(SITE, "left")
    sandbox.mkdir(ARCHIVES, 0o700)
    code, out, err = create(sandbox, "--clear")
    assert code == 0, err
    sandbox.secret(out.split()[-1])
    sandbox.took("hosting.create", {"ok": True})
    postgres = ["runuser", "-u", "postgres", "--"]
    assert changes(sandbox)[:3] == [
        [*postgres, "pg_dump", "-Fc", "alice"], [*postgres, "dropdb", "alice"], [*postgres, "dropuser", "alice"]]
    dumps = list(sandbox.path(ARCHIVES).iterdir())
    assert [(dump.read_text(), oct(dump.stat().st_mode & 0o777)) for dump in dumps] == [("PGDMP", "0o600")]
    assert "left" not in sandbox.read(SITE)


def test_what_cannot_be_dumped_is_not_dropped(sandbox):
    answer_databases(sandbox, roles=["alice"], databases=[("alice", False)])
    sandbox.answer("pg_dump", exit=1, err="no room")
    sandbox.mkdir(ARCHIVES, 0o700)
    code, out, err = create(sandbox, "--clear")
    assert (code, out) == (1, "")
    assert err.endswith("corvctl: runuser failed: no room\n")
    assert sandbox.argvs("dropdb", "dropuser") == []
    assert not any("dropdb" in argv for argv in sandbox.argvs())


def test_somebodys_own_is_not_cleared(sandbox):
    sandbox.answer("psql", "-qtAX", ..., out=json.dumps({
        "version": 150014, "roles": [{"name": "alice", "login": True, "plain": False}], "databases": []}))
    code, out, err = create(sandbox, "--clear")
    assert (code, out, err) == (
        1, "", "corvctl: PostgreSQL has a role alice that may do more than an account's\n"
               "corvctl: the name is not free, so nothing was made\n  mend that first, or take another name\n")
    assert changes(sandbox) == []


def test_a_failed_creation_says_what_is_left_of_it(sandbox):
    """The role appears while the agent works."""
    answer_databases(sandbox, roles=["alice"])
    sandbox.answer("psql", "-qtAX", ..., call=1, out=json.dumps({"version": 150014, "roles": [], "databases": []}))
    sandbox.answer("psql", holds=b"CREATE ROLE", exit=2, err="server closed the connection unexpectedly")
    code, out, err = create(sandbox)
    sandbox.took("hosting.create", {"ok": False})
    assert (code, out) == (1, "")
    assert err.endswith("corvctl: PostgreSQL has a role alice, but there is no such account\n"
                        "corvctl:   runuser -u postgres -- dropuser alice\n"
                        "corvctl: that is left of it; with --clear the same command takes it away and tries again\n")


def half_deleted(sandbox, mode=0o600):
    """The account as a deletion leaves it that was cut off while its database was dropped."""
    sandbox.add_account("alice")
    sandbox.mkdir(ARCHIVES, 0o700)
    for end in ("home.tar.gz", "db.dump"):
        sandbox.write(f"{ARCHIVES}/alice-20260105-031500-{end}", "x", mode)
    sandbox.answer("tar", "-tzf", ...)
    sandbox.add_standin("pg_restore")
    answer_databases(sandbox, roles=["alice"], databases=[("alice", True)])


LIFTED = ['DROP DATABASE "alice"', 'CREATE DATABASE "alice" OWNER "alice"', 'REVOKE ALL ON DATABASE "alice" FROM PUBLIC']
SHOWN = f"""\
corvctl: a deletion of alice was cut off while its database was dropped; its archives, 2 B:
corvctl:   {ARCHIVES}/alice-20260105-031500-home.tar.gz
corvctl:   {ARCHIVES}/alice-20260105-031500-db.dump
"""


def test_a_deletion_that_was_cut_off_is_finished_once_its_archives_were_read(sandbox):
    half_deleted(sandbox)
    code, out, err = delete(sandbox)
    assert code == 0, err
    sandbox.took("hosting.delete", {"ok": True})
    assert err.startswith(SHOWN + "corvctl: both can be read to their ends, so the deletion goes on\n")
    assert out.splitlines()[-1] == f"Its database\t{ARCHIVES}/alice-20260105-031500-db.dump"
    assert statements(sandbox) == LIFTED
    (check,) = sandbox.calls("pg_restore")
    # Its list alone would not show that the rows are damaged.
    assert (check.argv, check.stdin) == (["pg_restore", "--file", "/dev/null"], b"x")
    names = [argv[:2] for argv in sandbox.argvs("tar", "runuser")]
    assert names.index(["tar", "-tzf"]) == 1  # before anything was changed, after the question to PostgreSQL
    assert not sandbox.has_user("alice")


@pytest.mark.parametrize("program, call", [("tar", "home.tar.gz"), ("pg_restore", "db.dump")])
def test_a_damaged_archive_stops_the_deletion(sandbox, program, call):
    half_deleted(sandbox)
    sandbox.answer(program, exit=1, err="a warning\n\tunexpected end of file")
    code, out, err = delete(sandbox)
    assert (code, out) == (1, "")
    runner = "tar" if program == "tar" else "runuser"
    assert err == SHOWN + (f"corvctl: {ARCHIVES}/alice-20260105-031500-{call} is damaged: {runner} failed: a warning; "
                           "unexpected end of file\n"
                           "  nothing was deleted; --force deletes the rest all the same\n")
    assert statements(sandbox) == []
    assert sandbox.has_user("alice")


def test_without_archives_nothing_is_deleted_unless_forced(sandbox):
    half_deleted(sandbox, mode=0o644)  # as they are while they are made
    code, out, err = delete(sandbox)
    assert (code, out) == (1, "")
    assert err.endswith("corvctl: the account cannot be deleted as it is, so nothing was deleted\n"
                        "  --force has these statements run before\n")
    assert statements(sandbox) == []
    code, out, err = delete(sandbox, "--force")
    assert code == 0, err
    sandbox.took("hosting.delete", {"ok": True})
    assert statements(sandbox) == LIFTED


def test_an_account_that_is_only_a_user_is_deleted(sandbox):
    sandbox.add_user("alice", "Corvane account,alice.example", home=False)
    answer_databases(sandbox)
    sandbox.answer("install", real=True)
    code, out, err = delete(sandbox)
    assert (code, out) == (1, "")
    assert statements(sandbox) == []
    code, out, err = delete(sandbox, "--force")
    assert code == 0, err
    sandbox.took("hosting.delete", {"ok": True})
    assert statements(sandbox) == ['CREATE ROLE "alice" NOLOGIN', *LIFTED[1:]]
    assert err.endswith("corvctl: the account alice has no home, so it cannot be archived\n"
                        "corvctl:   install -d -o alice -g alice -m 0710 /home/alice\n")
    assert not sandbox.has_user("alice")


def test_a_refused_deletion_says_what_it_leaves(sandbox):
    sandbox.add_account("alice")
    sandbox.answer("pg_dump", exit=1, err="connection refused")
    code, out, err = delete(sandbox)
    sandbox.took("hosting.delete", {"ok": False})
    left = [entry.name for entry in sandbox.path(ARCHIVES).iterdir() if entry.name.endswith(".tar.gz")]
    assert len(left) == 1
    size = sandbox.path(f"{ARCHIVES}/{left[0]}").stat().st_size
    assert (code, out) == (1, "")
    assert err.endswith(f"corvctl: the archive of the home that was made before stays, {size} B, in a folder of root's: "
                        f"{ARCHIVES}/{left[0]}\n")
