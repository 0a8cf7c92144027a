"""What is ended in PostgreSQL before an account's role or database is changed, so that no transaction of its own is in the way."""

import json

import pytest

from postgres import Server

HOLDERS = "ELSE 'free'"
LOCK = "SELECT 'locked'"
# What only a deletion ends: sessions that hold nothing.
ALL = "OR session.usename = 'alice' OR session.datname = 'alice'"
CHANGES = [
    ("suspend", {}, [HOLDERS, LOCK, HOLDERS]),
    ("resume", {}, [HOLDERS]),
    ("resetDbPassword", {}, [HOLDERS]),
    ("dbReadOnly", {"readOnly": True}, [HOLDERS]),
    ("delete", {"confirm": "alice"}, [HOLDERS, LOCK, HOLDERS]),
]
EACH = pytest.mark.parametrize("command, arguments, expected", CHANGES, ids=[change[0] for change in CHANGES])


@pytest.fixture
def alice(sandbox):
    sandbox.add_account("alice")
    return sandbox


@pytest.fixture
def server(alice):
    server = Server(alice)
    yield server
    server.close()


def change(sandbox, command, arguments):
    return sandbox.request(f"hosting.{command}", username="alice", **arguments)


@EACH
def test_who_holds_the_account_is_ended_before_it_is_changed(alice, server, command, arguments, expected):
    assert change(alice, command, arguments)["ok"] is True
    assert server.kinds() == expected
    assert {(asked[0], asked[1]) for asked in server.asked} == {("postgres", "postgres")}
    assert all("'alice'" in asked[-1] and "%" not in asked[-1] for asked in server.asked)
    assert {ALL in asked[-1] for asked in server.asked} == {command == "delete"}


@EACH
def test_it_is_over_before_the_script(alice, server, command, arguments, expected):
    alice.answer("psql", wait="/tmp/go")
    client = alice.connect()
    client.send(json.dumps({"cmd": f"hosting.{command}", "args": {"username": "alice", **arguments}}).encode() + b"\n")
    alice.wait_for_call("psql")
    assert server.kinds() == expected
    alice.write("/tmp/go")
    assert alice.took(f"hosting.{command}", client.reply())["ok"] is True
    client.close()


@pytest.mark.parametrize("command", ["suspend", "resetDbPassword"])
def test_a_session_that_takes_a_moment_is_waited_for(alice, server, command):
    server.words[HOLDERS] = ["", "", "free"]
    assert change(alice, command, {})["ok"] is True
    assert server.kinds()[:3] == [HOLDERS] * 3


def test_one_that_never_ends_is_left_to_the_script(alice, server):
    server.words[HOLDERS] = ""
    assert change(alice, "resetDbPassword", {})["ok"] is True
    assert server.kinds() == [HOLDERS] * 25


def test_a_role_that_is_held_again_is_tried_again(alice, server):
    server.words[LOCK] = [None, None, "locked"]
    assert change(alice, "suspend", {}) == {"ok": True}
    assert server.kinds() == [HOLDERS, LOCK, LOCK, LOCK, HOLDERS]


@EACH
def test_a_server_that_does_not_answer_is_asked_once(alice, server, command, arguments, expected):
    server.words[HOLDERS] = None
    assert change(alice, command, arguments)["ok"] is True
    assert server.kinds() == [HOLDERS]
