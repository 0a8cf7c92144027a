"""backup.restore of a database, with a server: what is asked of it, and how pg_restore comes to it as the account's role."""

import json
import os
import select
import signal
import stat
import threading

import pytest

from postgres import FOLDER, GOODBYE, LET_IN, READY, RELAY, USUAL, Server, come, failure, message, row, start, status
from programs import PATIENCE, wait_until
from test_backup_restore import DROP, DUMP, KEPT, LOAD, NAME, PREPARE, SWAP, prepared

BEFORE = """SELECT CASE
WHEN EXISTS (SELECT FROM pg_database WHERE datname = 'alice__old')
 AND NOT EXISTS (SELECT FROM pg_database WHERE datname = 'alice') THEN 'aside'
WHEN EXISTS (SELECT FROM pg_roles WHERE rolname = 'alice' AND NOT rolcanlogin) THEN 'locked'
ELSE 'ready' END"""
EMPTY = """SELECT CASE
WHEN count(pg_terminate_backend(pid)) > 0 THEN pg_sleep(0.1)::text
WHEN EXISTS (SELECT FROM pg_prepared_xacts WHERE database = 'alice__restore') THEN 'prepared'
ELSE 'empty' END FROM pg_stat_activity WHERE datname = 'alice__restore'"""
FRESH = """WITH owners AS (
SELECT datname, refobjid FROM pg_shdepend JOIN pg_database ON pg_database.oid = dbid
WHERE refclassid = 'pg_authid'::regclass)
SELECT CASE WHEN EXISTS (SELECT refobjid FROM owners WHERE datname = 'alice__restore'
EXCEPT SELECT refobjid FROM owners WHERE datname = 'template1') THEN 'touched' ELSE 'fresh' END"""
GRANT = """DO $$ BEGIN
IF EXISTS (SELECT FROM pg_roles WHERE rolname = 'corv_restore') THEN GRANT corv_restore TO "alice"; END IF;
END $$; SELECT 'done'"""
REVOKE = """DO $$ BEGIN
IF EXISTS (SELECT FROM pg_roles WHERE rolname = 'corv_restore') THEN REVOKE corv_restore FROM "alice"; END IF;
END $$; SELECT 'done'"""
WHOSE = """SELECT coalesce(string_agg(oid::text, ','), '')
FROM pg_database WHERE datname IN ('alice', 'alice__restore') AND pg_get_userbyid(datdba) = 'alice'"""
SHUT = """SET lock_timeout = '200ms';
DO $$ DECLARE base name; BEGIN
PERFORM pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = 'alice__restore'
OR (usename = 'alice' AND pid IN (SELECT pid FROM pg_locks WHERE relation = 'pg_database'::regclass));
FOR base IN SELECT datname FROM pg_database WHERE datname IN ('alice', 'alice__restore')
AND pg_get_userbyid(datdba) = 'alice' LOOP EXECUTE format('ALTER DATABASE %I OWNER TO postgres', base); END LOOP;
END $$; SELECT 'shut'"""
BACK = """SET lock_timeout = '200ms';
DO $$ DECLARE base name; BEGIN
FOR base IN SELECT datname FROM pg_database WHERE oid IN (16385,16390) LOOP EXECUTE format('ALTER DATABASE %I OWNER TO %I', base, 'alice');
END LOOP; END $$; SELECT 'back'"""
WHOLE = [BEFORE, EMPTY, FRESH, GRANT, REVOKE, WHOSE, SHUT, EMPTY, BACK]

BROKE_OFF = KEPT + "the connection to PostgreSQL broke off"
NOT_LET_IN = KEPT + "PostgreSQL did not let the account in"


@pytest.fixture
def alice(sandbox):
    sandbox.answer("pg_restore", wait="/tmp/go")
    return prepared(sandbox)


@pytest.fixture
def server(alice):
    server = Server(alice)
    yield server
    server.close()


class Restore:
    """A restore in hand, whose pg_restore has been started and ends with it."""

    def __init__(self, sandbox):
        self._sandbox = sandbox
        self._client = sandbox.connect()
        arguments = {"username": "alice", "backup": NAME, "what": "database"}
        self._client.send(json.dumps({"cmd": "backup.restore", "args": arguments}).encode() + b"\n")

    def __enter__(self):
        self._sandbox.wait_for_call("pg_restore")
        return self

    def __exit__(self, *_):
        self._client.close()

    def reply(self):
        self._sandbox.write("/tmp/go")
        return self._sandbox.took("backup.restore", self._client.reply())


def restored(sandbox):
    return sandbox.request("backup.restore", username="alice", backup=NAME, what="database")


def connected(sandbox, server):
    """Both ends of a relay, once the account's role is let in."""
    loader = come(sandbox)
    loader.send(start("alice", "alice__restore"))
    behind = server.other()
    assert behind.first() == {"user": "alice", "database": "alice__restore"}
    behind.send(LET_IN, READY)
    assert [loader.message(), loader.message()] == [(b"R", bytes(4)), (b"Z", b"I")]
    return loader, behind


def leave(loader):
    """As a client ends a connection."""
    loader.send(GOODBYE)
    loader.close()


# The way


def test_what_is_asked_and_run(alice, server):
    with Restore(alice) as restore:
        loader, behind = connected(alice, server)
        assert (behind.uid, loader.uid) == (alice.uid("alice"), 0)
        leave(loader)
        assert behind.message() == (b"X", b"")
        assert behind.take(1) == b""
        assert restore.reply() == {"ok": True}
    assert [asked[-1] for asked in server.asked] == WHOLE
    assert {asked[:-1] for asked in server.asked} == {("postgres", "postgres", "-csearch_path=pg_catalog", "corv-agent")}
    assert alice.scripts() == [PREPARE, SWAP]
    assert LOAD in alice.argvs()
    assert alice.calls("pg_restore")[0].stdin == alice.path(DUMP).read_bytes()
    assert not alice.exists("/run/corvane/restore")


@pytest.mark.parametrize("size", [0, 1, 4091, 65_536, 3_000_000])
def test_everything_passes_both_ways_as_it_is(alice, server, size):
    with Restore(alice) as restore:
        loader, behind = connected(alice, server)
        body = os.urandom(size)
        for one, other in ((loader, behind), (behind, loader)):
            one.socket.setblocking(False)
            rest, taken = memoryview(message(b"d", body)), b""
            while len(taken) < size + 5:
                try:
                    rest = rest[one.socket.send(rest):] if rest else rest
                except BlockingIOError:
                    pass
                taken += other.socket.recv(1 << 16)
            assert taken == message(b"d", body)
            one.socket.settimeout(PATIENCE)
        leave(loader)
        assert restore.reply() == {"ok": True}


@pytest.mark.parametrize("side", ["loader", "server"])
def test_who_does_not_read_keeps_no_processor_busy(alice, server, side):
    with Restore(alice) as restore:
        loader, behind = connected(alice, server)
        one, other = (loader, behind) if side == "loader" else (behind, loader)
        relay = behind.pid
        one.socket.setblocking(False)
        data, sent = memoryview(message(b"d", bytes(8 << 20))), 0

        def waits():
            nonlocal sent
            try:
                sent += one.socket.send(data[sent:])
            except BlockingIOError:
                return all(status(relay)["State"][0] == "S" for _ in range(20))
            return False

        wait_until(waits, "a relay that has all that it can hold")
        assert sent < len(data)
        one.socket.settimeout(PATIENCE)
        rest = threading.Thread(target=one.socket.sendall, args=(data[sent:],))
        rest.start()
        assert other.message() == (b"d", bytes(8 << 20))
        rest.join()
        leave(loader)
        assert restore.reply() == {"ok": True}


def test_messages_come_in_any_pieces(alice, server):
    with Restore(alice) as restore:
        loader = come(alice)
        behind = server.other()
        for one, other, data in ((loader, behind, start("alice", "alice__restore")), (behind, loader, LET_IN + READY),
                                 (loader, behind, GOODBYE)):
            for byte in data:
                one.send(bytes([byte]))
                assert other.take(1) == bytes([byte])
        behind.close()
        assert loader.take(1) == b""
        assert restore.reply() == {"ok": True}


def test_the_way_is_the_system_users_alone(alice, server):
    with Restore(alice) as restore:
        assert alice.entry("/run/corvane/restore") == "0710 root:postgres"
        assert alice.entry(RELAY) == "0600 postgres:postgres"
        for user in ("alice", "www-data"):
            with pytest.raises(PermissionError):
                come(alice, user)
        loader, _ = connected(alice, server)
        with pytest.raises(ConnectionRefusedError):
            come(alice)
        leave(loader)
        assert restore.reply() == {"ok": True}


def test_root_is_not_taken_for_the_system_user(alice, server):
    with Restore(alice) as restore:
        assert come(alice, "root").message() is None
        assert restore.reply() == {"ok": True}  # pg_restore had nothing to load


def test_what_stands_for_the_account_has_no_rights(alice, server):
    alice.start(blocked=signal.SIGUSR1)
    alice.run("/usr/sbin/usermod", "-aG", "www-data", "alice")
    with Restore(alice) as restore:
        loader, behind = connected(alice, server)
        found = status(behind.pid)
        assert found["Uid"] == ["65534"] * 4
        assert found["Gid"] == [str(alice.ids("alice:alice")[1])] * 4
        assert sorted(found["Groups"], key=int) == ["33", str(alice.ids("alice:alice")[1])]
        assert {found[name][0] for name in ("CapInh", "CapPrm", "CapEff", "CapAmb")} == {"0" * 16}
        assert found["NoNewPrivs"] == ["1"]
        assert (found["SigBlk"], found["SigIgn"], found["SigCgt"]) == (["0" * 16], [f"{1 << (signal.SIGPIPE - 1):016x}"], ["0" * 16])
        folder = f"/proc/{behind.pid}"
        assert os.stat(f"{folder}/fd").st_uid == 0  # nobody may trace it
        kinds = {int(name): os.readlink(f"{folder}/fd/{name}") for name in os.listdir(f"{folder}/fd")}
        assert {kinds.pop(number) for number in (0, 1, 2)} == {str(alice.path("/dev/null"))}
        assert sorted(kind.split(":")[0] for kind in kinds.values()) == ["pipe", "socket", "socket"]
        leave(loader)
        assert restore.reply() == {"ok": True}


def test_nothing_stands_for_the_account_longer_than_the_agent(alice, server):
    with Restore(alice):
        loader, behind = connected(alice, server)
        alice.stop(signal.SIGKILL)
        assert behind.message() is None and loader.message() is None
        wait_until(lambda: not os.path.exists(f"/proc/{behind.pid}"), "its end")
        alice.write("/tmp/go")
    assert stat.S_ISSOCK(alice.path(RELAY).stat().st_mode)
    alice.answer("pg_restore")
    assert restored(alice) == {"ok": True}
    assert not alice.exists("/run/corvane/restore")


# How it ends


@pytest.mark.parametrize("how", ["at once", "after the start"])
def test_server_that_closes_the_connection(alice, server, how):
    with Restore(alice) as restore:
        loader = come(alice)
        loader.send(start("alice", "alice__restore"))
        behind = server.other()
        if how == "after the start":
            behind.first()
            behind.send(LET_IN)
        behind.close()
        assert restore.reply() == {"ok": False, "error": NOT_LET_IN}
    assert alice.scripts() == [PREPARE, DROP]


@pytest.mark.parametrize("text", ['role "alice" is not permitted to log in', "é" * 200], ids=["short", "long"])
def test_server_that_does_not_let_the_account_in(alice, server, text):
    with Restore(alice) as restore:
        loader = come(alice)
        loader.send(start("alice", "alice__restore"))
        behind = server.other()
        behind.first()
        behind.send(failure("FATAL", text))
        assert loader.message()[0] == b"E"
        behind.close()
        assert restore.reply() == {"ok": False, "error": KEPT + text}
    assert server.asked[-1][-1] == REVOKE
    assert alice.scripts() == [PREPARE, DROP]


def test_server_that_has_gone(alice, server):
    with Restore(alice) as restore:
        alice.path(USUAL).unlink()
        assert come(alice).message() is None
        later = Server(alice)
        assert restore.reply() == {"ok": False, "error": NOT_LET_IN}
    later.close()


@pytest.mark.parametrize("severity, text, expected", [
    ("FATAL", "terminating connection", "terminating connection"),
    ("PANIC", "no space", "no space"),
    ("FATAL", "", "the connection to PostgreSQL broke off"),
])
def test_server_that_ends_the_connection(alice, server, severity, text, expected):
    with Restore(alice) as restore:
        loader, behind = connected(alice, server)
        behind.send(failure(severity, text))
        assert loader.message()[0] == b"E"
        leave(loader)
        assert restore.reply() == {"ok": False, "error": KEPT + expected}


def test_errors_of_statements_are_pg_restores_matter(alice, server):
    with Restore(alice) as restore:
        loader, behind = connected(alice, server)
        behind.send(failure("ERROR", 'role "carol" does not exist'), READY)
        assert loader.message()[0] == b"E"
        leave(loader)
        assert restore.reply() == {"ok": True}


@pytest.mark.parametrize("unread", [False, True])
@pytest.mark.parametrize("side", ["loader", "server"])
def test_connection_that_ends_early(alice, server, side, unread):
    with Restore(alice) as restore:
        loader, behind = connected(alice, server)
        one, other = (loader, behind) if side == "loader" else (behind, loader)
        if unread:  # the kernel then calls it a reset
            other.send(message(b"d", b"unread"))
            assert select.select([one.socket], [], [], PATIENCE)[0]
        one.close()
        assert other.message() is None
        assert restore.reply() == {"ok": False, "error": BROKE_OFF}
    assert alice.scripts() == [PREPARE, DROP]


@pytest.mark.parametrize("length", [3, 0, -1])
@pytest.mark.parametrize("side", ["loader", "server"])
def test_what_is_no_message_breaks_it(alice, server, side, length):
    with Restore(alice) as restore:
        loader, behind = connected(alice, server)
        one, other = (loader, behind) if side == "loader" else (behind, loader)
        data = b"d" + length.to_bytes(4, "big", signed=True)
        one.send(data)
        assert other.take(5) == data
        leave(loader)
        assert restore.reply() == {"ok": False, "error": BROKE_OFF}


@pytest.mark.parametrize("how, expected", [
    (dict(exit=0), {"ok": True}),
    (dict(exit=1, err="pg_restore: error: input file is too short\n"),
     {"ok": False, "error": KEPT + "pg_restore: error: input file is too short"}),
    (dict(exit=1), {"ok": False, "error": KEPT + "pg_restore did not begin"}),
])
def test_pg_restore_that_never_comes(alice, server, how, expected):
    alice.answer("pg_restore", **how)
    assert restored(alice) == expected


def test_what_is_left_of_a_way_does_not_matter(alice, server):
    alice.mkdir("/run/corvane/restore")
    alice.write(RELAY)
    alice.answer("pg_restore")
    assert restored(alice) == {"ok": True}


def test_way_that_cannot_be_made(alice, server):
    alice.write("/run/corvane/restore/more")
    assert restored(alice) == {"ok": False, "error": KEPT + "cannot make the way to PostgreSQL in /run/corvane/restore"}


def test_way_without_room_for_its_socket_leaves_no_folder(alice, server):
    alice.small_disk("/run/corvane", files=4)
    assert restored(alice) == {"ok": False, "error": KEPT + "cannot make the way to PostgreSQL in /run/corvane/restore"}
    assert not alice.exists("/run/corvane/restore")


# What the server says


@pytest.mark.parametrize("question, word, expected", [
    ("THEN 'aside'", "aside", "there is no database alice, and alice__old holds its data since a restore that was cut off; bring it back: "
     "runuser -u postgres -- psql -c 'ALTER DATABASE \"alice__old\" RENAME TO \"alice\"'"),
    ("THEN 'aside'", "locked", "alice may not log in to PostgreSQL: resume the account first"),
    ("THEN 'aside'", None, "PostgreSQL does not tell which databases there are"),
    ("THEN 'aside'", failure("ERROR", "no"), "PostgreSQL does not tell which databases there are"),
    ("THEN 'prepared'", "prepared", "alice__restore holds a prepared transaction"),
    ("THEN 'prepared'", None, "PostgreSQL does not tell who is connected to alice__restore"),
    ("THEN 'prepared'", "", "somebody stays connected to alice__restore"),
    ("THEN 'touched'", "touched", "another role has put something into alice__restore while it was made; try again"),
    ("THEN 'touched'", None, "PostgreSQL does not tell what alice__restore holds"),
    ("string_agg", None, "PostgreSQL does not tell whose alice__restore is"),
    ("SELECT 'shut'", None, "alice keeps hold of its database"),
])
def test_answer_that_stops_the_restore(alice, server, question, word, expected):
    alice.answer("pg_restore")
    server.words[question] = word
    assert restored(alice) == {"ok": False, "error": KEPT + expected}
    asked = server.kinds()
    looks = 50 if expected.startswith(("somebody", "alice keeps")) else 1
    assert asked.count(question) == looks
    assert ("SELECT 'back'" in asked) is ("SELECT 'shut'" in asked)
    assert alice.scripts() == ([] if question == "THEN 'aside'" else [PREPARE, DROP])


@pytest.mark.parametrize("first", ["", "x"])
def test_sessions_that_take_a_moment_to_end(alice, server, first):
    alice.answer("pg_restore")
    server.words["THEN 'prepared'"] = [first] * 3 + ["empty"]
    assert restored(alice) == {"ok": True}
    assert server.kinds().count("THEN 'prepared'") == 5


def test_owner_that_has_nothing_taken_gets_nothing_back(alice, server):
    alice.answer("pg_restore")
    server.words["string_agg"] = ""
    assert restored(alice) == {"ok": True}
    assert {"SELECT 'shut'", "SELECT 'back'"}.isdisjoint(server.kinds())


@pytest.mark.parametrize("swap", [0, 1])
def test_database_that_cannot_be_given_back(alice, server, swap):
    alice.answer("pg_restore")
    alice.answer("psql", call=2, exit=swap, err="no")
    server.words["SELECT 'back'"] = None
    reply = restored(alice)
    assert reply == {"ok": False, "error": "restored, but swapping it in failed: " + "runuser failed: no; " * swap +
                     "the database belongs to postgres now; give it back: "
                     "runuser -u postgres -- psql -c 'ALTER DATABASE \"alice\" OWNER TO \"alice\"'"}
    assert server.kinds().count("SELECT 'back'") == 50


@pytest.mark.parametrize("said", [
    message(b"R", (3).to_bytes(4, "big")), failure("FATAL", "no"), b"R\0\0\0\3", b""], ids=["password", "refused", "nonsense", "end"])
def test_server_that_does_not_let_the_superuser_in(alice, server, said):
    server.let_in = said
    if not said:
        server.close()
    assert restored(alice) == {"ok": False, "error": KEPT + "PostgreSQL does not tell which databases there are"}
    assert server.asked == [] and alice.calls() == []


def test_the_first_column_of_the_first_row_counts(alice, server):
    alice.answer("pg_restore")
    server.words["THEN 'aside'"] = message(b"S", b"a\0b\0") + row("locked") + row("ready")
    assert restored(alice)["error"] == KEPT + "alice may not log in to PostgreSQL: resume the account first"


# Which server


@pytest.mark.parametrize("sockets, used", [
    ([5432, 5433], 5432), ([5433], 5433), ([5431, 5432], 5432), ([5433, 5434], None), ([], None)], ids=str)
def test_which_of_several_servers_is_asked(alice, sockets, used):
    alice.answer("pg_restore")
    servers = {number: Server(alice, f"{FOLDER}/.s.PGSQL.{number}") for number in sockets}
    alice.write(f"{FOLDER}/.s.PGSQL.5432.lock")
    alice.write(f"{FOLDER}/.s.PGSQL.x")
    assert restored(alice) == {"ok": True}
    assert [number for number, server in servers.items() if server.asked] == ([used] if used else [])
    for server in servers.values():
        server.close()
