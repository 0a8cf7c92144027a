"""What corvctl says of words that it does not know, and of names that are not there."""

import json

import pytest
from corvctl import corvctl
from terminal import FAKE_SOCKET, FakeAgent, answering


@pytest.mark.parametrize("line, problem, hint", [
    ("acount list", "no command 'acount'; did you mean 'account'?", "corvctl help lists them"),
    ("account lst", "no command 'account lst'; did you mean 'account list'?", "corvctl help account lists them"),
    ("account lsit alice", "no command 'account lsit'; did you mean 'account list'?", "corvctl help account lists them"),
    ("--timeout 5 --json statsu", "no command 'statsu'; did you mean 'status'?", "corvctl help lists them"),
    ("-H web1 docter", "no command 'docter'; did you mean 'doctor'?", "corvctl help lists them"),
    ("suspend alice", "no command 'suspend'; did you mean 'account suspend'?", "corvctl help lists them"),
    ("enable", "no command 'enable'", "corvctl help lists them"),
    ("help acount", "no command 'acount'; did you mean 'account'?", "corvctl help lists them"),
    ("help backup strt", "no command 'backup strt'; did you mean 'backup start'?", "corvctl help backup lists them"),
    ("zzz\x1b", "no command 'zzz\\x1b'", "corvctl help lists them"),
])
def test_a_word_that_is_no_command(sandbox, line, problem, hint):
    assert corvctl(sandbox, *line.split(" "), start=False) == (2, "", f"corvctl: {problem}\n  {hint}\n")


def test_a_word_that_is_typed_for_something_else_is_left_alone(sandbox):
    """The value of an option, and what stands behind the command."""
    code, out, err = corvctl(sandbox, "-n", "--confirm", "acount", "file", "rm", "alice", "acount", start=False)
    assert (code, err) == (0, "")
    assert json.loads(out)["args"] == {"op": "delete", "path": "acount", "username": "alice"}


@pytest.mark.parametrize("words, same", [
    (["help"], ["--help"]), (["help", "account"], ["account", "--help"]),
    (["help", "account", "create"], ["account", "create", "--help"]), (["help", "status"], ["status", "--help"]),
    (["-v"], ["--version"]), (["help", "help"], ["help", "--help"]),
])
def test_help_by_another_word(sandbox, words, same):
    code, out, err = corvctl(sandbox, *words, start=False)
    assert (code, err) == (0, "")
    assert (code, out, err) == corvctl(sandbox, *same, start=False)


@pytest.mark.parametrize("accounts, typed, hint", [
    (["alice", "carol"], "alcie", "did you mean 'alice'?"),
    (["alice"], "shop", "the only account is 'alice'"),
    (["alice", "carol"], "shop", "corvctl account list shows the accounts"),
    (["alice1", "alice2"], "alice", "corvctl account list shows the accounts"),
    ([], "alice", "corvctl account list shows the accounts"),
])
def test_an_account_that_is_not_there(sandbox, accounts, typed, hint):
    for name in accounts:
        sandbox.add_account(name)
    error = f"no Corvane account named '{typed}'"
    assert corvctl(sandbox, "account", "suspend", typed) == (1, "", f"corvctl: {error}\n  {hint}\n")
    sandbox.took("hosting.suspend", {"ok": False, "error": error})
    assert sandbox.calls() == []


@pytest.mark.parametrize("line", ["account show shpo", "account domain shpo new.example", "account publish shpo",
                                  "backup restore shpo 2026-01-05_031500 files --in-place"])
def test_an_account_that_is_not_there_and_that_the_agent_is_not_asked_for(sandbox, line):
    for name in ("shop", "alice"):
        sandbox.add_account(name)
    said = "corvctl: no Corvane account named 'shpo'\n  did you mean 'shop'?\n"
    assert corvctl(sandbox, *line.split(), start=False) == (1, "", said)
    reply = '{"error":"no Corvane account named \'shpo\'","ok":false}\n'
    assert corvctl(sandbox, "--json", *line.split(), start=False) == (1, reply, said)


def test_an_account_that_is_not_there_on_another_server(sandbox):
    accounts = json.dumps({"ok": True, "accounts": [{"username": "shop"}, {"username": "b\x1b"}]})
    sandbox.answer("ssh", shell=f'shift 3; [ "$2" = account ] || exec "$@"; echo \'{accounts}\'')
    sandbox.allows_loose_calls("ssh")
    error = "no Corvane account named 'shpo'"
    code, out, err = corvctl(sandbox, "-H", "web1", "account", "suspend", "shpo")
    assert (code, out, err) == (1, "", f"corvctl: {error}\n  did you mean 'shop'?\n")
    sandbox.took("hosting.suspend", {"ok": False, "error": error})


@pytest.mark.parametrize("accounts, more", [(["alice"], "the only account is 'alice'\n"), (["alice", "carol"], ""), ([], "")])
def test_an_account_that_was_left_out(sandbox, accounts, more):
    for name in accounts:
        sandbox.add_account(name)
    for line in ("account suspend", "file ls"):
        assert corvctl(sandbox, *line.split(), start=False) == (
            2, "", "ACCOUNT is required\nRun with --help for more information.\n" + more)


@pytest.mark.parametrize("names, typed, hint", [
    (["2026-01-05_031500", "2026-01-04_031500"], "2026-01-05_03150", "did you mean '2026-01-05_031500'?"),
    (["2026-01-05_031500"], "yesterday", "the only backup is '2026-01-05_031500'"),
    (["2026-01-05_031500", "2025-11-24_031500"], "yesterday", "corvctl backup list shows the backups"),
    ([], "yesterday", "corvctl backup list shows the backups"),
])
def test_a_backup_that_is_not_there(sandbox, names, typed, hint):
    reply = json.dumps({"ok": True, "backups": [{"name": name} for name in names]}).encode() + b"\n"
    with FakeAgent(sandbox, answering(reply)):
        found = corvctl(sandbox, "--socket", FAKE_SOCKET, "backup", "show", typed, start=False)
    assert found == (1, "", f"corvctl: there is no backup {typed}\n  {hint}\n")


def test_a_backup_that_is_not_there_to_be_restored(sandbox):
    none = json.dumps({"ok": False, "error": "that backup has no files for alice"}).encode() + b"\n"
    some = json.dumps({"ok": True, "backups": [{"name": "2026-01-05_031500"}, {"name": "2026-01-04_031500"}]}).encode() + b"\n"
    with FakeAgent(sandbox, answering(none, some)):
        found = corvctl(sandbox, "--socket", FAKE_SOCKET, "backup", "restore", "alice", "2026-01-05_03150", "files", start=False)
    assert found == (1, "", "corvctl: there is no backup 2026-01-05_03150\n  did you mean '2026-01-05_031500'?\n")
