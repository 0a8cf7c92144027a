"""Finding a request's command, and what the log says about it."""

import json

import pytest

PONG = b'{"ok":true,"version":"0.1"}\n'
UNKNOWN = b'{"error":"unknown command","ok":false}\n'


def exchange(sandbox, line):
    with sandbox.connect() as client:
        client.send(line + b"\n")
        return client.line()


def unknown_is_logged_as(sandbox, line, shown):
    assert exchange(sandbox, line) == UNKNOWN
    sandbox.logs(f"agent: uid 0 sent unknown command '{shown}'")


@pytest.mark.parametrize(
    "line",
    [
        b'{"cmd":"ping"}',
        b'{"cmd":"ping","args":{}}',
        b'{"cmd":"ping","args":[]}',
        b'{"cmd":"ping","args":["x"]}',
        b'{"cmd":"ping","args":"text"}',
        b'{"cmd":"ping","args":null}',
        b'{"cmd":"ping","args":7}',
        b'{"cmd":"ping","args":{"username":"root"},"uid":0,"other":{}}',
        b' { "cmd" : "ping" } ',
        b'{"cmd":"p\\u0069ng"}',
    ],
)
def test_ping_answers_whatever_the_arguments(sandbox, line):
    assert exchange(sandbox, line) == PONG
    sandbox.logs("agent: uid 0 ran ping -> ok")


@pytest.mark.parametrize(
    "line",
    [
        b"not json",
        b'{"cmd":"ping"',
        b'{"cmd":"ping"} x',
        b'{"cmd":"ping"}{"cmd":"ping"}',
        b"{'cmd':'ping'}",
        b'[{"cmd":"ping"}]',
        b'"ping"',
        b"null",
        b"17",
        b"{}",
        b'{"cmd":""}',
        b'{"cmd":null}',
        b'{"cmd":1}',
        b'{"cmd":true}',
        b'{"cmd":["ping"]}',
        b'{"cmd":{"cmd":"ping"}}',
        b'{"CMD":"ping"}',
        b'{"args":{"cmd":"ping"}}',
        b'{"cmd":"ping\xff"}',
        b"[" * 100_000,
        b'{"cmd":"ping","args":' + b"[" * 2000 + b"]" * 2000 + b"}",
    ],
    ids=lambda line: line[:24].decode("latin-1"),
)
def test_line_without_a_command_names_an_empty_one(sandbox, line):
    unknown_is_logged_as(sandbox, line, "")


@pytest.mark.parametrize(
    "name",
    [
        "PING",
        "Ping",
        " ping",
        "ping ",
        "pin",
        "pings",
        "hosting",
        "hosting.",
        "hosting.remove",
        "hosting.Create",
        "hosting create",
        "system.serviceStatus",
        "restartService",
        "agent.stop",
        "%s%n",
        "'; ls",
        "é",
    ],
)
def test_name_that_is_no_command_is_logged_as_it_is(sandbox, name):
    unknown_is_logged_as(sandbox, json.dumps({"cmd": name}).encode(), name)


@pytest.mark.parametrize(
    "name, shown",
    [
        ("x" * 63, "x" * 63),
        ("x" * 64, "x" * 64),
        ("x" * 65, "x" * 64),
        ("x" * 100, "x" * 64),
        ("é" * 100, "é" * 64),
        ("😀" * 40, "😀" * 32),  # counted as UTF-16 units
        ("y" * 1_000_000, "y" * 64),
    ],
    ids=lambda text: f"{text[0]}{len(text)}",
)
def test_long_name_is_cut_in_the_log(sandbox, name, shown):
    unknown_is_logged_as(sandbox, json.dumps({"cmd": name}).encode(), shown)


@pytest.mark.parametrize(
    "name, shown",
    [
        ("x'\nagent: uid 0 ran ping -> ok", "x'\\u000aagent: uid 0 ran ping -> ok"),
        ("ping\n", "ping\\u000a"),
        ("ping\r", "ping\\u000d"),
        ("ping\0", "ping\\u0000"),
        ("\x1b[2Jping", "\\u001b[2Jping"),
        ("\x7f\x85\x9b", "\\u007f\\u0085\\u009b"),
        ("a\u2028b\u2029c", "a\\u2028b\\u2029c"),
        ("\u202egnip", "\\u202egnip"),
        ("\n" * 70, "\\u000a" * 64),
    ],
)
def test_control_characters_forge_no_line(sandbox, name, shown):
    unknown_is_logged_as(sandbox, json.dumps({"cmd": name}).encode(), shown)


COMMANDS = """
    ping system.info system.disks services.status services.restart hosting.create hosting.suspend hosting.resume
    hosting.delete hosting.usage hosting.getKeys quota.status quota.enable quota.set firewall.status firewall.enable
    firewall.disable firewall.allow firewall.delete fail2ban.status fail2ban.enable fail2ban.unban updates.status
    updates.refresh updates.install updates.automatic system.reboot security.status backup.status backup.start
    backup.restore files hosting.setKeys hosting.resetDbPassword hosting.dbReadOnly
""".split()


@pytest.mark.parametrize("command", COMMANDS)
def test_command_is_known_and_answers_without_arguments(sandbox, command):
    # Every tool succeeds and prints nothing; what a command makes of that is its own tests' matter.
    reply = sandbox.request(command)
    assert isinstance(reply["ok"], bool)
    assert reply["ok"] or set(reply) == {"ok", "error"}
    assert reply.get("error") != "unknown command"
    for other in (command.upper(), command + " ", command[:-1]):
        assert sandbox.request(other) == {"ok": False, "error": "unknown command"}


def test_arguments_are_never_logged(sandbox):
    sandbox.secret("topsecret")
    sandbox.request("hosting.create", username="topsecret", domain="topsecret", sshKey="topsecret", other="topsecret")
    sandbox.request("topsecre", args={"x": "topsecret"})
    assert not any("topsecret" in line for line in sandbox.log_lines)


def test_failed_request_is_logged_as_failed_and_the_connection_stays(sandbox):
    with sandbox.connect() as client:
        client.send(b'{"cmd":"hosting.create"}\n{"cmd":"ping"}\n')
        assert client.reply()["ok"] is False
        assert client.line() == PONG
    sandbox.logs("agent: uid 0 ran hosting.create -> failed", "agent: uid 0 ran ping -> ok")


@pytest.mark.parametrize("args", [None, [], "username=alice", 5, ["alice"]])
def test_arguments_that_are_no_object_are_none(sandbox, args):
    with sandbox.connect() as client:
        client.send(json.dumps({"cmd": "hosting.create", "args": args}).encode() + b"\n")
        assert client.reply() == {
            "ok": False,
            "error": "username: 3 to 16 lowercase letters and digits, starting with a letter (not a reserved name)",
        }
    sandbox.logs("agent: uid 0 ran hosting.create -> failed")
    assert sandbox.calls() == []
