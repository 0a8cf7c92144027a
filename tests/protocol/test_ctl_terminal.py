"""corvctl on a terminal: its note while the agent is busy, its bars, its questions, its colours, and what it never shows."""

import json
import os
import re
import shutil

import pytest

from terminal import FAKE_SOCKET, FakeAgent, Terminal, read_line

pytestmark = pytest.mark.skipif(not shutil.which("tmux"), reason="tmux is not installed")


def answers(members):
    def serve(connection):
        while read_line(connection):
            connection.sendall(json.dumps({"ok": True, **members}, ensure_ascii=False).encode() + b"\n")
    return serve


def test_says_with_what_the_agent_is_busy(sandbox):
    sandbox.answer("apt", wait="/tmp/go")
    with sandbox.connect() as client:
        client.send(b'{"cmd":"updates.status"}\n')
        sandbox.wait_for_call("apt")
        with Terminal(sandbox, "call", "ping") as terminal:
            shown = terminal.wait_for("(2 s)")
            assert re.fullmatch(r"[|/\\-] the agent is busy with updates\.status, for root since \d s \(2 s\)", shown)
            sandbox.write("/tmp/go")
            assert terminal.end() == (0, '{"ok":true,"version":"0.1"}')
        sandbox.took("updates.status", client.reply())
    sandbox.took("ping", {"ok": True})


def test_does_not_know_what_the_agent_of_another_server_is_busy_with(sandbox):
    sandbox.answer("apt", wait="/tmp/go")
    sandbox.answer("ssh", shell='shift 3; exec "$@"')
    sandbox.allows_loose_calls("ssh")
    sandbox.start()
    with Terminal(sandbox, "-H", "web1", "update", "list") as terminal:
        assert re.fullmatch(r"[|/\\-] the agent over there is working, or busy with another request \(2 s\)",
                            terminal.wait_for("(2 s)"))
        sandbox.write("/tmp/go")
        assert terminal.end() == (0, "PACKAGE  INSTALLED  NEW  SECURITY")
    sandbox.took("updates.status", {"ok": True})


def test_says_that_the_agent_is_working_on_ones_own_request(sandbox):
    sandbox.answer("apt", wait="/tmp/go")
    sandbox.start()
    with Terminal(sandbox, "update", "list") as terminal:
        assert re.fullmatch(r"[|/\\-] the agent is working \(2 s\)", terminal.wait_for("(2 s)"))
        sandbox.write("/tmp/go")
        assert terminal.end() == (0, "PACKAGE  INSTALLED  NEW  SECURITY")
    sandbox.took("updates.status", {"ok": True})


def test_says_how_far_the_archive_of_a_deletion_is(sandbox):
    sandbox.allows_loose_calls("psql", "runuser")
    sandbox.add_account("alice")
    sandbox.answer("tar", wait="/tmp/go", exit=2, err="tar: no\n")
    sandbox.start()
    with Terminal(sandbox, "account", "delete", "alice", "--confirm", "alice") as terminal:
        sandbox.wait_for_call("tar")
        sandbox.write("/var/backups/corvane/alice-20991231-235959-home.tar.gz", "x" * 3_145_728)
        assert re.fullmatch(r"[|/\\-] the agent has archived 3\.0 MiB, [0-9.]+ [KM]iB/s \(\d+ s\)",
                            terminal.wait_for("archived"))
        sandbox.write("/tmp/go")
        assert terminal.end()[0] == 1
    sandbox.logs("agent: uid 0 ran hosting.delete -> failed")


def test_says_how_much_of_its_file_a_restore_has_read(sandbox):
    sandbox.add_account("alice")
    backup = "2025-03-09_031500"
    sandbox.write(f"/var/backups/corvane/auto/{backup}/accounts/alice-home.tar.gz", b"x" * 4_194_304)
    sandbox.answer("tar", unread=True, wait="/tmp/go")
    sandbox.start()
    with Terminal(sandbox, "backup", "restore", "alice", backup, "files") as terminal:
        sandbox.wait_for_call("tar")
        assert re.fullmatch(r"[|/\\-] the agent has read [0-9.]+ KiB of 4\.0 MiB, [0-9.]+ [KM]iB/s, \d+ (s|min) left \(\d+ s\)",
                            terminal.wait_for("left"))
        sandbox.write("/tmp/go")
        assert terminal.end()[0] == 1
    sandbox.logs("agent: uid 0 ran backup.restore -> failed")


@pytest.mark.parametrize("env", [{"TERM": "dumb"}, {"TERM": ""}])
def test_draws_nothing_on_a_terminal_that_cannot_be_drawn_on(sandbox, env):
    sandbox.answer("apt", wait="/tmp/go")
    sandbox.start()
    with Terminal(sandbox, "--timeout", "3", "update", "list", env=env) as terminal:
        shown = terminal.wait_for("no reply within 3 s")
        assert shown.startswith("corvctl: no reply within 3 s\n")
    sandbox.write("/tmp/go")
    sandbox.wait_for_log("agent: uid 0 ran updates.status -> ok")


def test_shows_how_far_an_upload_is(sandbox):
    sandbox.add_account("alice")
    sandbox.start()
    os.mkfifo(sandbox.path("/root/slow"))
    with Terminal(sandbox, "file", "put", "alice", "/root/slow", "a.bin") as terminal:
        with sandbox.path("/root/slow").open("wb", buffering=0) as pipe:
            pipe.write(b"x" * 65536)
            shown = terminal.wait_for("a.bin  ")
            assert re.match(r"a\.bin  [\d.]+ \w+  [\d.]+ \w+/s$", shown)
        assert terminal.end() == (0, "a.bin: 64.0 KiB")
    sandbox.took("files", {"ok": True})


def test_shows_a_bar_where_the_size_is_known(sandbox):
    sandbox.start()
    # Larger than the terminal's end of a pipe, which nobody reads: the copy stands still on its way out.
    name = "x" * 20
    sandbox.write(f"/var/lib/corvane/transfer/{name}", b"x" * 20_000_000)
    os.mkfifo(sandbox.path("/root/slow"))
    with FakeAgent(sandbox, answers({"transfer": name, "size": 20_000_000})):
        with Terminal(sandbox, "--socket", FAKE_SOCKET, "file", "get", "alice", "a.bin", "/root/slow") as terminal:
            with sandbox.path("/root/slow").open("rb", buffering=0) as pipe:
                read = 0
                while read < 1_000_000:
                    read += len(pipe.read(1_000_000))
                shown = terminal.wait_for("a.bin  [")
                assert re.match(r"a\.bin  \[[#.]{5,30}\]  +\d+ %  [\d.]+ \w+  [\d.]+ \w+/s", shown)
                assert all(len(line) < 80 for line in shown.splitlines())
                while pipe.read(1 << 20):
                    pass
            assert terminal.end() == (0, "/root/slow: 19.1 MiB")


def test_asks_for_the_name_and_goes_on_with_it(sandbox):
    sandbox.add_account("alice")
    sandbox.mkdir("/home/alice/old", 0o755, "alice:alice")
    sandbox.write("/home/alice/old/a", "x", 0o644, "alice:alice")
    sandbox.start()
    with Terminal(sandbox, "file", "rm", "alice", "old") as terminal:
        terminal.wait_for("This deletes old with all that is in it. Type old to go on:")
        assert sandbox.exists("/home/alice/old")
        terminal.type("old")
        code, shown = terminal.end()
        assert code == 0 and shown.endswith("\nold is deleted")
    assert not sandbox.exists("/home/alice/old")
    sandbox.took("files", {"ok": True})


@pytest.mark.parametrize("typed", ["", "y", "yes", "Alice"])
def test_asks_for_the_name_and_stops_at_another(sandbox, typed):
    sandbox.add_account("alice")
    sandbox.start()
    with Terminal(sandbox, "account", "delete", "alice") as terminal:
        terminal.wait_for("Type alice to go on:")
        terminal.type(typed)
        code, shown = terminal.end()
        assert code == 2 and shown.endswith("corvctl: that is not the account's name, so nothing was deleted")
    assert sandbox.has_user("alice")


def test_asks_nothing_when_it_was_told(sandbox):
    sandbox.add_account("alice")
    sandbox.write("/home/alice/old", "x", 0o644, "alice:alice")
    with sandbox.connect():
        pass
    with Terminal(sandbox, "file", "rm", "alice", "old", "--confirm", "old") as terminal:
        assert terminal.end() == (0, "old is deleted")
    sandbox.took("files", {"ok": True})


@pytest.mark.parametrize("env, coloured", [({}, True), ({"NO_COLOR": "1"}, False), ({"NO_COLOR": ""}, True),
                                           ({"TERM": "dumb"}, False)])
def test_is_coloured_unless_asked_not_to_be(sandbox, env, coloured):
    sandbox.start()
    services = [{"name": "apache2", "loaded": True, "active": True, "sub": "running", "memory": 1, "since": 1767610800}]
    with FakeAgent(sandbox, answers({"services": services})):
        with Terminal(sandbox, "--socket", FAKE_SOCKET, "service", "list", env=env) as terminal:
            code, shown = terminal.end()
            assert (code, shown) == (0, "SERVICE  STATE    MEMORY  SINCE\napache2  running     1 B  2026-01-05 11:00")
            assert ("32" in terminal.colours()) == coloured


@pytest.mark.parametrize("args", [
    ["file", "cat", "alice", "a"], ["--json", "host", "info"], ["call", "ping"], ["update", "log"], ["backup", "log"],
    ["account", "keys", "alice", "--text"],
])
def test_a_text_cannot_steer_the_terminal(sandbox, args):
    sandbox.start()
    steering = "before \x1b[2J\x1b]0;title\x07\x9b5m\x9d0;x\x9c \u202eafter"
    with FakeAgent(sandbox, answers({"content": steering, "log": steering, "keys": steering, "version": steering})):
        with Terminal(sandbox, "--socket", FAKE_SOCKET, *args) as terminal:
            code, shown = terminal.end()
            text = shown.replace("\n", "")
            assert code == 0
            assert "before" in text and "after" in text
            assert r"\u202eafter" in text and "\u202e" not in text
            assert "title" in text and terminal.title() != "title"


def test_a_file_is_not_poured_onto_a_terminal(sandbox):
    sandbox.start()
    with Terminal(sandbox, "file", "get", "alice", "a", "-") as terminal:
        assert terminal.end() == (2, "corvctl: standard output is a terminal\n  name a FILE, or use corvctl file cat")


def test_tables_fit_the_terminal(sandbox):
    sandbox.start()
    entries = [{"name": "ü" * 300, "dir": False, "size": 1 << 40, "mtime": 1767610800, "mode": "644"},
               {"name": "画像" * 100, "dir": True, "size": 0, "mtime": 1767610800, "mode": "755"}]
    with FakeAgent(sandbox, answers({"entries": entries})):
        with Terminal(sandbox, "--socket", FAKE_SOCKET, "file", "ls", "alice") as terminal:
            code, shown = terminal.end()
            lines = shown.split("\n")
            assert code == 0 and len(lines) == 3
            # The last column's title is a column wider than what stands under it; a sign takes two columns.
            assert lines[1].endswith("…  file    1.0 TiB  2026-01-05 11:00  644") and len(lines[1]) == 79
            assert lines[2].endswith("…  folder        -  2026-01-05 11:00  755") and lines[2].startswith("画像画像")
