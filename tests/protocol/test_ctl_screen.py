"""What corvctl makes of replies for the eye: sentences of tools, narrow terminals, and what is told once only."""

import json

import pytest
from corvctl import corvctl
from terminal import FAKE_SOCKET, FakeAgent, answering, read_line


def reply(**members):
    return answering(json.dumps({"ok": True, **members}).encode() + b"\n")


def ask(sandbox, serve, *args, columns="80"):
    with FakeAgent(sandbox, serve):
        found = corvctl(sandbox, "--socket", FAKE_SOCKET, *args, start=False, env={"COLUMNS": columns})
    sandbox.path(FAKE_SOCKET).unlink()
    return found


SAID = ("Apache's configuration has an error: AH00526: Syntax error on line 3 of /etc/apache2/a.conf:\n"
        "\tInvalid command 'Nosuch'\nAction 'configtest' failed.\n")


def test_what_a_tool_said_is_one_clean_sentence(sandbox):
    line = json.dumps({"error": SAID, "ok": False}, separators=(",", ":"))
    said = ("corvctl: Apache's configuration has an error: AH00526: Syntax error on line 3 of /etc/apache2/a.conf: "
            "Invalid command 'Nosuch'; Action 'configtest' failed.\n  apachectl configtest shows all of it\n")
    assert ask(sandbox, answering(line.encode() + b"\n"), "account", "resume", "alice") == (1, "", said)
    assert ask(sandbox, answering(line.encode() + b"\n"), "--json", "account", "resume", "alice") == (1, line + "\n", said)


def test_what_a_backup_could_not_save_is_one_clean_sentence(sandbox):
    backups = [{"name": "2026-01-05_031500", "errors": ["carol files: tar failed: a\n\tb\n"], "accounts": []}]
    assert ask(sandbox, reply(backups=backups), "backup", "show", "2026-01-05_031500") == (
        0, "ACCOUNT  DOMAIN  FILES  DATABASE\n", "corvctl: carol files: tar failed: a; b\n")


@pytest.mark.parametrize("next_one, seconds", [
    ("Tue 2026-01-06 03:42:10 UTC", "1767670930"), ("Tue 2026-01-06 03:42:10 PST", ""), ("", "")])
def test_programs_get_the_next_backup_in_seconds(sandbox, next_one, seconds):
    code, out, err = ask(sandbox, reply(backups=[], next=next_one), "--plain", "backup", "status")
    assert (code, err) == (0, "")
    assert out.splitlines()[2] == f"Next\t{seconds}"


NARROW = {
    40: "BA…  SIZE  AC…   TOOK  ER…  VERI…  FAUL…\n20…  68.…    1  1 h …    0  -      -\n",
    30: "B…  S…  A…  TO…  ER…  VE…  FA…\n2…  6…   1  1 …    0  -    -\n",
}


@pytest.mark.parametrize("columns", NARROW)
def test_a_narrow_table_has_an_ellipsis_and_no_broken_line(sandbox, columns):
    """Words and titles are shortened before numbers."""
    backups = [{"name": "2026-01-05_031500", "bytes": 70209, "accounts": [{}], "seconds": 4000, "errors": []}]
    assert all(len(line) <= columns for line in NARROW[columns].splitlines())
    assert ask(sandbox, reply(backups=backups), "backup", "list", columns=str(columns)) == (0, NARROW[columns], "")


def test_a_narrow_list_of_files(sandbox):
    entries = [{"name": "a-rather-long-name.html", "dir": False, "size": 15, "mtime": 1767610800, "mode": "644"}]
    assert ask(sandbox, reply(entries=entries), "file", "ls", "alice", columns="40") == (0, """\
NAME      KIND  SIZE  CHANGED       MODE
a-rathe…  file  15 B  2026-01-05 …  644
""", "")


def test_a_password_that_is_told_once_is_told_whole(sandbox):
    password = "p" * 24
    members = {"domain": "alice.example.org", "phpVersion": "8.2", "dbPassword": password,
               "accessLog": "/var/log/apache2/alice.example.org-access.log"}
    code, out, err = ask(sandbox, reply(**members), "account", "create", "alice", "alice.example.org", columns="30")
    assert (code, err) == (0, "")
    assert out.splitlines()[-1] == f"Database password  {password}"


def test_the_accounts_of_another_server_are_counted_there(sandbox):
    """Not in the last backup, which holds those that there were then."""
    def serve(connection):
        while read_line(connection):
            connection.sendall(b'{"ok":true,"backups":[{"name":"x","accounts":[{},{}]}]}\n')

    accounts = json.dumps({"ok": True, "accounts": [{"username": "alice"}]})
    sandbox.answer("ssh", shell=f'shift 3; [ "$2" = account ] || exec "$@" --socket {FAKE_SOCKET}; echo \'{accounts}\'')
    sandbox.allows_loose_calls("ssh")
    with FakeAgent(sandbox, serve):
        code, out, err = corvctl(sandbox, "-H", "web1", "status", "--plain", start=False)
    assert (code, err) == (0, "")
    assert "accounts\tok\t1\n" in out
    assert sandbox.argvs("ssh")[-1] == ["ssh", "-T", "--", "web1", "corvctl", "account", "list", "--json"]
